// Monitored next hops: the key record, the aggregate entry's notifications
// and the per-VRF trees of merged and input next hops.
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Arp::MonitoredNexthop;

namespace {

Entry entry(char const* a, char const* intf) {
  return Entry(Brio::strepToValue<Corvid::IpGenAddr>(Brio::String(a)), Corvid::IntfId(intf));
}

TEST(MonitoredNexthop, EntryPrintsReadsBackAndHashesItsFieldsInOrder) {
  Entry const e = entry("fe80::1", "Ethernet3/1");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(e),
            "Value('Arp::MonitoredNexthop::Entry', ** {'ipGenAddr': fe80::1, 'intfId': 'Ethernet3/1'})");
  EXPECT_EQ(e.hash(7), Brio::Hash(7).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
}

// The aggregate entry's notifiee hears the inherited trigger as well as its
// own clients; when a value counts as changed is EntityTest's.
TEST(MonitoredNexthop, AggregateEntryAnnouncesTriggerAndClients) {
  struct Heard : NexthopAggEntry::Notifiee {
    explicit Heard(Brio::Ptr<NexthopAggEntry> const& e) : Notifiee(e) {}
    void handleTriggerResolution() override { log.push_back("trigger"); }
    void handleClient(Brio::String const& name) override { log.push_back(name.str()); }
    std::vector<std::string> log;
  };
  auto e = NexthopAggEntry::nexthopAggEntryFactory(entry("10.0.0.1", "Ethernet1"));
  Heard heard(e);
  e->triggerResolutionIs(5);
  e->clientIs("bgp", false);
  e->clientDel("bgp");
  EXPECT_EQ(heard.log, (std::vector<std::string>{"trigger", "bgp", "bgp"}));
}

// Per-VRF sets and next hops made once and kept, each change announced by
// key. The input tree is the same template over
// the request entry.
TEST(MonitoredNexthop, TreesMakeEachVrfAndNextHopOnce) {
  static_assert(std::is_same_v<decltype(Status::statusFactory("")->nextHopIs({})), Brio::Ptr<NexthopAggEntry>>);
  static_assert(std::is_same_v<decltype(Input::Status::statusFactory("")->nextHopIs({})), Brio::Ptr<NexthopReqEntry>>);
  auto dir = VrfStatusDir::vrfStatusDirFactory("monitored");
  auto red = dir->vrfStatusIs("red");
  EXPECT_EQ(dir->vrfStatusIs("red"), red);
  struct SetHeard : Status::Notifiee {
    explicit SetHeard(Brio::Ptr<Status> const& s) : Status::Notifiee(s) {}
    void handleNextHop(Entry const& e) override { log.push_back(e.intfId().name().str()); }
    std::vector<std::string> log;
  } heard(red);
  red->nextHopIs(entry("10.0.0.1", "Ethernet1"))->triggerResolutionIs(3);
  EXPECT_EQ(red->nextHopIs(entry("10.0.0.1", "Ethernet1"))->triggerResolution(), 3u);
  red->nextHopIs(entry("10.0.0.1", "Ethernet2"));
  red->nextHopDel(entry("10.0.0.9", "Ethernet1"));  // absent: no news
  red->nextHopDelAll();
  EXPECT_EQ(heard.log, (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet1", "Ethernet2"}));
  dir->vrfStatusDel("red");
  EXPECT_TRUE(dir->vrfStatuses().empty());
}

}  // namespace
