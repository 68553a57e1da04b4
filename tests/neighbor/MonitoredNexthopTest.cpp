// Monitored next hops: the key record, the request and aggregate entries'
// notification rules, and the per-VRF directories of both trees.
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/ValueCases.h"

using namespace Arp::MonitoredNexthop;
using Corvid::IntfId;
using Corvid::IpGenAddr;

namespace {

Entry entry(char const* a, char const* intf) {
  return Entry(Brio::strepToValue<IpGenAddr>(Brio::String(a)), IntfId(intf));
}

TEST(MonitoredNexthop, EntryPrintsReadsBackHashesAndOrdersByItsFields) {
  Entry const e = entry("fe80::1", "Ethernet3/1");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(e),
            "Value('Arp::MonitoredNexthop::Entry', ** {'ipGenAddr': fe80::1, 'intfId': 'Ethernet3/1'})");
  Brio::NboAttrLog log;
  attrLogWrite(log, e);
  EXPECT_EQ(attrLogRead(log, static_cast<Entry*>(nullptr)), e);
  EXPECT_EQ(e.hash(7), Brio::Hash(7).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
  std::vector<Entry> const sorted = {entry("10.0.0.1", "Ethernet2"), entry("10.0.0.1", "Ethernet10"),
                                     entry("10.0.0.2", "Ethernet1")};
  std::vector<Entry> shuffled = {sorted[2], sorted[0], sorted[1]};
  std::sort(shuffled.begin(), shuffled.end());
  EXPECT_EQ(shuffled, sorted);
}

// Everything an aggregate entry announces, as "trigger" or "client:<name>".
struct Heard : NexthopAggEntry::Notifiee {
  explicit Heard(Brio::Ptr<NexthopAggEntry> const& e) : Notifiee(e) {}
  void handleTriggerResolution() override { log.push_back("trigger"); }
  void handleClient(Brio::String const& name) override {
    log.push_back("client:" + name.str() + "=" + (notifier()->hasClient(name) ? "1" : "-"));
  }
  std::vector<std::string> log;
};

TEST(MonitoredNexthop, AggregateEntryNotifiesOnlyRealChanges) {
  auto e = NexthopAggEntry::nexthopAggEntryFactory(entry("10.0.0.1", "Ethernet1"));
  Heard heard(e);
  struct Step {
    char const* what;
    std::function<void()> op;
    std::vector<std::string> heard;
  };
  Step const steps[] = {
      {"trigger as constructed", [&] { e->triggerResolutionIs(0); }, {}},
      {"trigger", [&] { e->triggerResolutionIs(5); }, {"trigger"}},
      {"same trigger twice", [&] { e->triggerResolutionIs(5); }, {}},
      {"trigger back down", [&] { e->triggerResolutionIs(4); }, {"trigger"}},
      {"client added", [&] { e->clientIs("bgp", true); }, {"client:bgp=1"}},
      {"client unchanged", [&] { e->clientIs("bgp", true); }, {}},
      {"client flag changed", [&] { e->clientIs("bgp", false); }, {"client:bgp=1"}},
      {"absent client deleted", [&] { e->clientDel("ospf"); }, {}},
      {"client deleted", [&] { e->clientDel("bgp"); }, {"client:bgp=-"}},
      {"client deleted again", [&] { e->clientDel("bgp"); }, {}},
      {"two added", [&] { e->clientIs("b", true), e->clientIs("a", false); }, {"client:b=1", "client:a=1"}},
      {"all deleted", [&] { e->clientDelAll(); }, {"client:a=-", "client:b=-"}},
      {"none left to delete", [&] { e->clientDelAll(); }, {}},
  };
  for (auto const& s : steps) {
    heard.log.clear();
    s.op();
    EXPECT_EQ(heard.log, s.heard) << s.what;
  }
  EXPECT_EQ(e->triggerResolution(), 4u);
  EXPECT_FALSE(e->client("bgp")) << "an absent client reads false";
}

TEST(MonitoredNexthop, RequestEntryStartsAtZeroAndKnowsItsKey) {
  struct Count : NexthopReqEntry::Notifiee {
    explicit Count(Brio::Ptr<NexthopReqEntry> const& e) : Notifiee(e) {}
    void handleTriggerResolution() override { ++n; }
    int n = 0;
  };
  Entry const key = entry("2001:db8::7", "Vlan4");
  auto e = NexthopReqEntry::nexthopReqEntryFactory(key);
  Count count(e);
  EXPECT_EQ(e->entry(), key);
  EXPECT_EQ(e->triggerResolution(), 0u);
  for (U64 v : {0, 1, 1, 1, 2, 2}) e->triggerResolutionIs(v);
  EXPECT_EQ(count.n, 2);
}

// The directories of both trees: per-VRF sets made once, next hops made
// once, lookups null when absent, each change announced by key.
template <class Dir>
void checkTree() {
  struct DirHeard : Dir::Notifiee {
    explicit DirHeard(Brio::Ptr<Dir> const& d) : Dir::Notifiee(d) {}
    void handleVrfStatus(Brio::String const& name) override { log.push_back(name.str()); }
    std::vector<std::string> log;
  };
  auto dir = Dir::vrfStatusDirFactory("monitored");
  DirHeard dirHeard(dir);
  auto red = dir->vrfStatusIs("red");
  EXPECT_EQ(dir->vrfStatusIs("red"), red);
  EXPECT_EQ(dir->vrfStatus("red"), red.ptr());
  EXPECT_EQ(dir->vrfStatus("blue"), nullptr);
  dir->vrfStatusIs("blue");
  dir->vrfStatusDel("absent");
  dir->vrfStatusDel("blue");
  EXPECT_EQ(dirHeard.log, (std::vector<std::string>{"red", "blue", "blue"}));

  using Set = std::remove_reference_t<decltype(*red)>;
  struct SetHeard : Set::Notifiee {
    explicit SetHeard(Brio::Ptr<Set> const& s) : Set::Notifiee(s) {}
    void handleNextHop(Entry const& e) override { log.push_back(e.intfId().name().str()); }
    std::vector<std::string> log;
  };
  SetHeard setHeard(red);
  auto hop = red->nextHopIs(entry("10.0.0.1", "Ethernet1"));
  hop->triggerResolutionIs(3);
  EXPECT_EQ(red->nextHopIs(entry("10.0.0.1", "Ethernet1")), hop) << "an existing next hop keeps its state";
  EXPECT_EQ(red->nextHop(entry("10.0.0.1", "Ethernet1"))->triggerResolution(), 3u);
  EXPECT_EQ(red->nextHop(entry("10.0.0.1", "Ethernet2")), nullptr);
  red->nextHopIs(entry("10.0.0.1", "Ethernet2"));
  red->nextHopDel(entry("10.0.0.9", "Ethernet1"));
  red->nextHopDel(entry("10.0.0.1", "Ethernet1"));
  red->nextHopDelAll();
  EXPECT_TRUE(red->nextHops().empty());
  EXPECT_EQ(setHeard.log, (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet1", "Ethernet2"}));

  dir->vrfStatusDelAll();
  EXPECT_TRUE(dir->vrfStatuses().empty());
}

TEST(MonitoredNexthop, AggregateTreeMakesEachVrfAndNextHopOnce) {
  static_assert(std::is_same_v<decltype(Status::statusFactory("s")->nextHopIs(Entry())), Brio::Ptr<NexthopAggEntry>>);
  checkTree<VrfStatusDir>();
}

TEST(MonitoredNexthop, InputTreeMakesEachVrfAndNextHopOnce) {
  static_assert(
      std::is_same_v<decltype(Input::Status::statusFactory("s")->nextHopIs(Entry())), Brio::Ptr<NexthopReqEntry>>);
  checkTree<Input::VrfStatusDir>();
}

}  // namespace
