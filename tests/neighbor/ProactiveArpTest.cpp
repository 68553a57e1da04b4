// Proactive resolution requests: record texts, order and hash; one client's
// request table, unmounted and read back through shared memory; the
// clients' directory that forgets a table with its last reference.
#include <Brio/ActivityManager.h>
#include <Corvid/Corvid.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ShoalScope.h"
#include "support/ValueCases.h"

using namespace Arp::ProactiveArp;
using Corvid::IntfId;
using Corvid::IpGenAddr;

namespace {

IpGenAddr addr(char const* text) { return Brio::strepToValue<IpGenAddr>(Brio::String(text)); }
Entry entry(char const* a, char const* intf) { return Entry(addr(a), IntfId(intf)); }
OpIntfIdEntry opEntry(char const* a, char const* intf, U32 vrf) {
  return OpIntfIdEntry(addr(a), IntfId(intf), VrfId(vrf));
}

// The strep, after checking it reads back. A default key's address has no
// family and prints "::", which reads back as IPv6: defaults give text only.
template <class T>
std::string text(T const& v) {
  return v == T() ? Brio::strep(v).str() : CorvidTest::expectStrepRoundTrip(v);
}

TEST(ProactiveArp, RecordsPrintTheirFieldsInOrderAndReadBack) {
  std::pair<std::string, char const*> const rows[] = {
      {text(Request(entry("2001:db8::1", "Vlan10"), ~0ULL)),
       "Value('Arp::ProactiveArp::Request', ** {'key': Value('Arp::ProactiveArp::Entry', ** {'ipGenAddr': "
       "2001:db8::1, 'intfId': 'Vlan10'}), 'triggerResolution': 18446744073709551615})"},
      {text(OpIntfIdEntry()),
       "Value('Arp::ProactiveArp::OpIntfIdEntry', ** {'ipGenAddr': ::, 'intfId': '', 'vrfId': 16777215})"},
      {text(OpIntfIdRequest(opEntry("10.0.0.9", "Ethernet2", 7), 3)),
       "Value('Arp::ProactiveArp::OpIntfIdRequest', ** {'key': Value('Arp::ProactiveArp::OpIntfIdEntry', ** "
       "{'ipGenAddr': 10.0.0.9, 'intfId': 'Ethernet2', 'vrfId': 7}), 'triggerResolution': 3})"},
  };
  for (auto const& [got, expected] : rows) EXPECT_EQ(got, expected);
}

TEST(ProactiveArp, KeysHashAndOrderFieldByFieldInDeclarationOrder) {
  OpIntfIdEntry const o = opEntry("10.0.0.1", "Ethernet1", 4);
  EXPECT_EQ(o.hash(5),
            Brio::Hash(5).mix(o.ipGenAddr().hash()).mix(o.intfId().hash()).mix(o.vrfId().hash()).result());
  auto req = [](char const* a, char const* intf, U32 vrf, U64 trigger) {
    return OpIntfIdRequest(opEntry(a, intf, vrf), trigger);
  };
  // Address, then interface (Ethernet2 before Ethernet10), then VRF, then trigger.
  EXPECT_LT(req("10.0.0.1", "Ethernet9", 9, 9), req("10.0.0.2", "Ethernet1", 0, 0));
  EXPECT_LT(req("10.0.0.1", "Ethernet2", 9, 5), req("10.0.0.1", "Ethernet10", 1, 0));
  EXPECT_LT(req("10.0.0.1", "Ethernet10", 1, 5), req("10.0.0.1", "Ethernet10", 2, 0));
  EXPECT_LT(req("10.0.0.1", "Ethernet10", 2, 0), req("10.0.0.1", "Ethernet10", 2, 1));
}

// The addresses of the keys a table announced, in order.
struct Heard : ClientConfig::Notifiee {
  explicit Heard(Brio::Ptr<ClientConfig> const& t) : Notifiee(t) {}
  void handleRequest(Entry const& key) override { keys.push_back(Brio::strep(key.ipGenAddr()).str()); }
  std::vector<std::string> keys;
};

TEST(ProactiveArp, ClientTableAnnouncesOnDemandAndEveryKeyItClears) {
  auto t = ClientConfig::clientConfigFactory("bgp", 4);
  Heard heard(t);
  Entry const a = entry("10.0.0.1", "Ethernet1"), b = entry("10.0.0.2", "Ethernet1");
  // When a set or delete is a change is ShoalTest's; the forced
  // announcement and the clear-all are this table's own.
  std::pair<std::function<void()>, std::vector<std::string>> const steps[] = {
      {[&] { t->requestIs(Request(a, 1)); }, {"10.0.0.1"}},
      {[&] { t->requestNotify(a); }, {"10.0.0.1"}},
      {[&] { t->requestIs(Request(b, 0)); }, {"10.0.0.2"}},
      {[&] { t->requestDelAll(); }, {"10.0.0.1", "10.0.0.2"}},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    heard.keys.clear();
    steps[i].first();
    std::sort(heard.keys.begin(), heard.keys.end());  // the clear-all goes in table order
    EXPECT_EQ(heard.keys, steps[i].second) << "step " << i;
  }
}

// The longest interface name: 72 bytes for the key and its request alike,
// and such a request reaches a reader whole.
TEST(ProactiveArp, EveryKeyThatFitsHasARequestThatFitsAndReadsBack) {
  CorvidTest::ShoalRoot root;
  Brio::ActivityManager loop;
  auto fits = [](auto table, auto const& request) {
    try {
      return table->requestIs(request);
    } catch (Brio::SizeException const&) {
      return false;
    }
  };
  std::string const n72(72, 'x'), n73(73, 'x');
  auto a = ClientConfig::clientConfigFactory("a");
  auto b = OpIntfIdClientConfig::opIntfIdClientConfigFactory("b");
  ASSERT_TRUE(a->mount("proactive/a", Shoal::MountMode::writer));
  Request const longest(entry("ffff::1", n72.c_str()), ~0ULL);
  EXPECT_TRUE(fits(a, longest));
  EXPECT_FALSE(fits(a, Request(entry("ffff::1", n73.c_str()), 0)));
  EXPECT_TRUE(fits(b, OpIntfIdRequest(opEntry("ffff::1", n72.c_str(), 1), ~0ULL)));
  EXPECT_FALSE(fits(b, OpIntfIdRequest(opEntry("ffff::1", n73.c_str(), 1), 0)));
  a->requestCommit();
  auto r = ClientConfig::clientConfigFactory("r");
  Heard heard(r);
  ASSERT_TRUE(r->mount("proactive/a", Shoal::MountMode::reader));
  ASSERT_TRUE(loop.runUntil([&] { return r->quiesced() && r->requests() == 1; }, 5));
  EXPECT_EQ(r->request(longest.key()), longest);
  EXPECT_EQ(heard.keys, std::vector<std::string>{"ffff::1"});
}

TEST(ProactiveArp, DirectoryDropsAClientWithItsLastReference) {
  struct DirHeard : AllClientsConfig::Notifiee {
    explicit DirHeard(Brio::Ptr<AllClientsConfig> const& d) : Notifiee(d) {}
    void handleClientConfig(Brio::String const& name) override {
      names.push_back(name.str() + (notifier()->clientConfig(name) ? "+" : "-"));
    }
    std::vector<std::string> names;
  };
  auto dir = allClientsConfigFactory("clients");
  DirHeard heard(dir);
  auto bgp = dir->clientConfigIs("bgp");
  EXPECT_EQ(dir->clientConfigIs("bgp"), bgp);
  {
    Heard follower(bgp);  // a follower's reference keeps the table listed
    bgp = nullptr;
    EXPECT_NE(dir->clientConfig("bgp"), nullptr);
  }
  // Unlisted by hand, a table lives on for its holder, and its end is no
  // news to the directory.
  auto isis = dir->clientConfigIs("isis");
  dir->clientConfigDelAll();
  isis->requestIs(Request(entry("10.0.0.1", "Ethernet1"), 1));
  isis = nullptr;
  EXPECT_EQ(heard.names, (std::vector<std::string>{"bgp+", "bgp-", "isis+", "isis-"}));
  // A directory that goes first leaves its tables working.
  auto ospf = dir->clientConfigIs("ospf");
  heard.notifierIs(nullptr);
  dir = nullptr;
  EXPECT_TRUE(ospf->requestIs(Request(entry("10.0.0.2", "Ethernet1"), 1)));
}

}  // namespace
