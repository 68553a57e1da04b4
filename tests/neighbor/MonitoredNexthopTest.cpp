// Monitored next hops: the key record, the aggregate entry's notification
// rules, and the per-VRF trees of merged and input next hops.
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Arp::MonitoredNexthop;

namespace {

Entry entry(char const* a, char const* intf) {
  return Entry(Brio::strepToValue<Corvid::IpGenAddr>(Brio::String(a)), Corvid::IntfId(intf));
}

TEST(MonitoredNexthop, EntryPrintsReadsBackHashesAndOrdersByItsFields) {
  Entry const e = entry("fe80::1", "Ethernet3/1");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(e),
            "Value('Arp::MonitoredNexthop::Entry', ** {'ipGenAddr': fe80::1, 'intfId': 'Ethernet3/1'})");
  EXPECT_EQ(e.hash(7), Brio::Hash(7).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
  EXPECT_LT(entry("10.0.0.1", "Ethernet10"), entry("10.0.0.2", "Ethernet1"));
}

// Everything an aggregate entry announces: "trigger", or "<client>=1" for
// a listed client and "<client>=-" for a removed one.
struct Heard : NexthopAggEntry::Notifiee {
  explicit Heard(Brio::Ptr<NexthopAggEntry> const& e) : Notifiee(e) {}
  void handleTriggerResolution() override { log.push_back("trigger"); }
  void handleClient(Brio::String const& name) override {
    log.push_back(name.str() + (notifier()->hasClient(name) ? "=1" : "=-"));
  }
  std::vector<std::string> log;
};

TEST(MonitoredNexthop, AggregateEntryNotifiesOnlyRealChanges) {
  auto e = NexthopAggEntry::nexthopAggEntryFactory(entry("10.0.0.1", "Ethernet1"));
  Heard heard(e);
  // Unchanged values stay silent, as for every entity attribute; a client's
  // flag going false is a change like any other.
  std::pair<std::function<void()>, std::vector<std::string>> const steps[] = {
      {[&] { e->triggerResolutionIs(0); }, {}},  // as constructed
      {[&] { e->triggerResolutionIs(5); }, {"trigger"}},
      {[&] { e->triggerResolutionIs(4); }, {"trigger"}},
      {[&] { e->clientIs("bgp", true); }, {"bgp=1"}},
      {[&] { e->clientIs("bgp", false); }, {"bgp=1"}},
      {[&] { e->clientDel("bgp"); }, {"bgp=-"}},
      {[&] { e->clientIs("b", true), e->clientIs("a", false); }, {"b=1", "a=1"}},
      {[&] { e->clientDelAll(); }, {"a=-", "b=-"}},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    heard.log.clear();
    steps[i].first();
    EXPECT_EQ(heard.log, steps[i].second) << "step " << i;
  }
  EXPECT_FALSE(e->client("bgp")) << "an absent client reads false";
}

// Both trees: per-VRF sets and next hops made once and kept, lookups null
// when absent, each change announced by key.
template <class Dir>
void checkTree() {
  auto dir = Dir::vrfStatusDirFactory("monitored");
  auto red = dir->vrfStatusIs("red");
  EXPECT_EQ(dir->vrfStatusIs("red"), red);
  EXPECT_EQ(dir->vrfStatus("blue"), nullptr);
  using Set = std::remove_reference_t<decltype(*red)>;
  struct SetHeard : Set::Notifiee {
    explicit SetHeard(Brio::Ptr<Set> const& s) : Set::Notifiee(s) {}
    void handleNextHop(Entry const& e) override { log.push_back(e.intfId().name().str()); }
    std::vector<std::string> log;
  } heard(red);
  red->nextHopIs(entry("10.0.0.1", "Ethernet1"))->triggerResolutionIs(3);
  EXPECT_EQ(red->nextHopIs(entry("10.0.0.1", "Ethernet1"))->triggerResolution(), 3u);
  EXPECT_EQ(red->nextHop(entry("10.0.0.1", "Ethernet2")), nullptr);
  red->nextHopIs(entry("10.0.0.1", "Ethernet2"));
  red->nextHopDel(entry("10.0.0.9", "Ethernet1"));  // absent: no news
  red->nextHopDelAll();
  EXPECT_EQ(heard.log, (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet1", "Ethernet2"}));
  dir->vrfStatusDel("red");
  EXPECT_TRUE(dir->vrfStatuses().empty());
}

TEST(MonitoredNexthop, BothTreesMakeEachVrfAndNextHopOnce) {
  static_assert(std::is_same_v<decltype(Status::statusFactory("")->nextHopIs({})), Brio::Ptr<NexthopAggEntry>>);
  static_assert(std::is_same_v<decltype(Input::Status::statusFactory("")->nextHopIs({})), Brio::Ptr<NexthopReqEntry>>);
  checkTree<VrfStatusDir>();
  checkTree<Input::VrfStatusDir>();
}

}  // namespace
