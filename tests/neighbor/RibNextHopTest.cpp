// RIB next hops: the key record and the response directory's starting
// state. The sets' per-key notifications are the entity rules EntityTest pins.
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Arp::RibNextHop;

namespace {

Entry entry(char const* a, char const* intf = "Ethernet1") {
  return Entry(Brio::strepToValue<Corvid::IpGenAddr>(Brio::String(a)), Corvid::IntfId(intf));
}

TEST(RibNextHop, EntryPrintsReadsBackAndHashesItsFieldsInOrder) {
  Entry const e = entry("192.0.2.1", "Port-Channel5");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(e),
            "Value('Arp::RibNextHop::Entry', ** {'ipGenAddr': 192.0.2.1, 'intfId': 'Port-Channel5'})");
  EXPECT_EQ(e.hash(), Brio::Hash(0).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
}

TEST(RibNextHop, ResponseDirStartsWithAnEmptyDefaultVrfAndDoInitReturnsThere) {
  auto dir = responseDirFactory("rib");
  ASSERT_EQ(dir->vrfs().size(), 1u);
  ResponseSet* const initial = dir->vrf("default");
  ASSERT_NE(initial, nullptr);
  auto red = dir->vrfIs("red");
  EXPECT_EQ(dir->vrfIs("red"), red);
  red->responseIs(entry("10.0.0.1"), true);
  initial->responseIs(entry("10.0.0.2"), true);
  dir->doInit();
  ASSERT_EQ(dir->vrfs().size(), 1u);
  EXPECT_EQ(dir->vrf("default"), initial);
  EXPECT_TRUE(initial->responses().empty()) << "every answer given before is void";
}

}  // namespace
