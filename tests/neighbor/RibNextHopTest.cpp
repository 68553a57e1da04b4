// RIB next hops: the key record, the request and response sets, and the
// response directory's starting state.
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Arp::RibNextHop;
using Corvid::IntfId;
using Corvid::IpGenAddr;

namespace {

Entry entry(char const* a, char const* intf) {
  return Entry(Brio::strepToValue<IpGenAddr>(Brio::String(a)), IntfId(intf));
}

TEST(RibNextHop, EntryPrintsReadsBackAndHashesItsFieldsInOrder) {
  Entry const e = entry("192.0.2.1", "Port-Channel5");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(e),
            "Value('Arp::RibNextHop::Entry', ** {'ipGenAddr': 192.0.2.1, 'intfId': 'Port-Channel5'})");
  EXPECT_EQ(e.hash(), Brio::Hash(0).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
  EXPECT_LT(entry("192.0.2.1", "Ethernet9"), entry("192.0.2.1", "Ethernet10"));
  EXPECT_LT(entry("192.0.2.1", "Ethernet10"), entry("192.0.2.2", "Ethernet1"));
}

// Keys each set announced, as "<address>=<value now, or - when absent>".
struct Requests : RequestSet::Notifiee {
  explicit Requests(Brio::Ptr<RequestSet> const& s) : Notifiee(s) {}
  void handleRequest(Entry const& e) override {
    auto* s = notifier();
    log.push_back(Brio::strep(e.ipGenAddr()).str() + "=" +
                  (s->hasRequest(e) ? std::to_string(s->request(e)) : std::string("-")));
  }
  std::vector<std::string> log;
};
struct Responses : ResponseSet::Notifiee {
  explicit Responses(Brio::Ptr<ResponseSet> const& s) : Notifiee(s) {}
  void handleResponse(Entry const& e) override {
    auto* s = notifier();
    log.push_back(Brio::strep(e.ipGenAddr()).str() + "=" +
                  (s->hasResponse(e) ? std::to_string(s->response(e)) : std::string("-")));
  }
  std::vector<std::string> log;
};

TEST(RibNextHop, SetsAnnounceAddedChangedAndRemovedEntriesOnly) {
  auto requests = requestSetFactory("default");
  auto responses = responseSetFactory("default");
  Requests rq(requests);
  Responses rs(responses);
  Entry const a = entry("10.0.0.1", "Ethernet1"), b = entry("10.0.0.2", "Ethernet1");
  requests->requestIs(a, 1);
  requests->requestIs(a, 1);
  requests->requestIs(a, 0);
  requests->requestIs(b, 9);
  requests->requestDel(entry("10.0.0.3", "Ethernet1"));
  requests->requestDel(a);
  requests->requestDelAll();
  EXPECT_EQ(rq.log, (std::vector<std::string>{"10.0.0.1=1", "10.0.0.1=0", "10.0.0.2=9", "10.0.0.1=-", "10.0.0.2=-"}));
  EXPECT_EQ(requests->request(a), 0u);

  responses->responseIs(a, false);
  responses->responseIs(a, true);
  responses->responseIs(a, true);
  responses->responseIs(b, true);
  responses->responseDel(b);
  responses->responseDel(b);
  EXPECT_EQ(rs.log, (std::vector<std::string>{"10.0.0.1=0", "10.0.0.1=1", "10.0.0.2=1", "10.0.0.2=-"}));
  EXPECT_TRUE(responses->response(a));
  EXPECT_FALSE(responses->response(b)) << "an absent next hop is not resolved";
  responses->responseDelAll();
  EXPECT_TRUE(responses->responses().empty());
}

TEST(RibNextHop, ResponseDirStartsWithAnEmptyDefaultVrfAndReinitialises) {
  auto dir = responseDirFactory("rib");
  ASSERT_EQ(dir->vrfs().size(), 1u);
  ResponseSet* initial = dir->vrf("default");
  ASSERT_NE(initial, nullptr);
  EXPECT_TRUE(initial->responses().empty());

  struct Vrfs : ResponseDir::Notifiee {
    explicit Vrfs(Brio::Ptr<ResponseDir> const& d) : Notifiee(d) {}
    void handleVrf(Brio::String const& name) override { log.push_back(name.str()); }
    std::vector<std::string> log;
  } heard(dir);
  auto red = dir->vrfIs("red");
  EXPECT_EQ(dir->vrfIs("red"), red);
  red->responseIs(entry("10.0.0.1", "Ethernet1"), true);
  dir->vrfIs("default")->responseIs(entry("10.0.0.2", "Ethernet1"), true);
  dir->vrfIs("blue");
  dir->vrfDel("green");
  EXPECT_EQ(dir->vrf("green"), nullptr);

  // Starting again voids every answer but keeps the default VRF's set.
  dir->doInit();
  EXPECT_EQ(heard.log, (std::vector<std::string>{"red", "blue", "blue", "red"}));
  ASSERT_EQ(dir->vrfs().size(), 1u);
  EXPECT_EQ(dir->vrf("default"), initial);
  EXPECT_TRUE(initial->responses().empty());
  EXPECT_EQ(red->responses().size(), 1u) << "a holder of a dropped set still reads it";

  dir->vrfDelAll();
  EXPECT_TRUE(dir->vrfs().empty());
}

}  // namespace
