// RIB next hops: the key record, the request and response sets, and the
// response directory's starting state.
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

// Keys announced, as "<address>=<value now>" or "<address>=-" once gone.
struct Heard : RequestSet::Notifiee, ResponseSet::Notifiee {
  Heard(Brio::Ptr<RequestSet> const& q, Brio::Ptr<ResponseSet> const& r)
      : RequestSet::Notifiee(q), ResponseSet::Notifiee(r) {}
  void handleRequest(Entry const& e) override {
    auto* s = RequestSet::Notifiee::notifier();
    note(e, s->hasRequest(e), s->request(e));
  }
  void handleResponse(Entry const& e) override {
    auto* s = ResponseSet::Notifiee::notifier();
    note(e, s->hasResponse(e), s->response(e));
  }
  void note(Entry const& e, bool present, U32 v) {
    log.push_back(Brio::strep(e.ipGenAddr()).str() + "=" + (present ? std::to_string(v) : "-"));
  }
  std::vector<std::string> log;
};

TEST(RibNextHop, SetsAnnounceAddedChangedAndRemovedEntriesOnly) {
  auto requests = requestSetFactory("default");
  auto responses = responseSetFactory("default");
  Heard heard(requests, responses);
  for (U32 v : {1, 1, 0}) requests->requestIs(entry("10.0.0.1"), v);
  requests->requestIs(entry("10.0.0.2"), 9);
  requests->requestDel(entry("10.0.0.3"));
  requests->requestDelAll();
  for (bool v : {false, true, true}) responses->responseIs(entry("10.0.0.4"), v);
  responses->responseDel(entry("10.0.0.4"));
  responses->responseDel(entry("10.0.0.4"));
  EXPECT_EQ(heard.log, (std::vector<std::string>{"10.0.0.1=1", "10.0.0.1=0", "10.0.0.2=9", "10.0.0.1=-", "10.0.0.2=-",
                                                 "10.0.0.4=0", "10.0.0.4=1", "10.0.0.4=-"}));
  EXPECT_FALSE(responses->response(entry("10.0.0.4"))) << "an absent next hop is not resolved";
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
