// Proactive resolution requests: record texts, order and hash; one client's
// request table unmounted and across two processes; the clients' directory
// that forgets a table with its last reference.
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

template <class T>
T roundTripped(T const& v) {
  CorvidTest::expectStrepRoundTrip(v);
  Brio::NboAttrLog log;
  attrLogWrite(log, v);
  T back = attrLogRead(log, static_cast<T*>(nullptr));
  EXPECT_TRUE(log.atEnd());
  return back;
}

TEST(ProactiveArp, RecordsPrintTheirFieldsInOrderAndReadBack) {
  struct Row {
    std::string strep;
    std::string roundTrip;
    char const* expected;
  };
  auto row = [](auto const& v, char const* expected) {
    return Row{Brio::strep(v).str(), Brio::strep(roundTripped(v)).str(), expected};
  };
  // A default key's address has no family and prints as "::", which reads
  // back as the IPv6 address: the text only.
  auto textOnly = [](auto const& v, char const* expected) {
    return Row{Brio::strep(v).str(), expected, expected};
  };
  Row const rows[] = {
      textOnly(Entry(), "Value('Arp::ProactiveArp::Entry', ** {'ipGenAddr': ::, 'intfId': ''})"),
      row(entry("10.1.2.3", "Ethernet1"),
          "Value('Arp::ProactiveArp::Entry', ** {'ipGenAddr': 10.1.2.3, 'intfId': 'Ethernet1'})"),
      row(Request(entry("2001:db8::1", "Vlan10"), 18446744073709551615ULL),
          "Value('Arp::ProactiveArp::Request', ** {'key': Value('Arp::ProactiveArp::Entry', ** {'ipGenAddr': "
          "2001:db8::1, 'intfId': 'Vlan10'}), 'triggerResolution': 18446744073709551615})"),
      textOnly(OpIntfIdEntry(), "Value('Arp::ProactiveArp::OpIntfIdEntry', ** {'ipGenAddr': ::, 'intfId': '', "
                           "'vrfId': 16777215})"),
      row(OpIntfIdRequest(opEntry("10.0.0.9", "Ethernet2", 7), 3),
          "Value('Arp::ProactiveArp::OpIntfIdRequest', ** {'key': Value('Arp::ProactiveArp::OpIntfIdEntry', ** "
          "{'ipGenAddr': 10.0.0.9, 'intfId': 'Ethernet2', 'vrfId': 7}), 'triggerResolution': 3})"),
  };
  for (auto const& r : rows) {
    EXPECT_EQ(r.strep, r.expected);
    EXPECT_EQ(r.roundTrip, r.expected);
  }
}

TEST(ProactiveArp, KeysHashAndOrderFieldByFieldInDeclarationOrder) {
  Entry const e = entry("10.0.0.1", "Ethernet1");
  EXPECT_EQ(e.hash(), Brio::Hash(0).mix(e.ipGenAddr().hash()).mix(e.intfId().hash()).result());
  OpIntfIdEntry const o = opEntry("10.0.0.1", "Ethernet1", 4);
  EXPECT_EQ(o.hash(5),
            Brio::Hash(5).mix(o.ipGenAddr().hash()).mix(o.intfId().hash()).mix(o.vrfId().hash()).result());
  EXPECT_NE(Request(e, 1).hash(), Request(e, 2).hash());

  // Address first, then interface (Ethernet2 before Ethernet10), then VRF.
  std::vector<OpIntfIdRequest> const sorted = {
      OpIntfIdRequest(opEntry("10.0.0.1", "Ethernet2", 9), 5), OpIntfIdRequest(opEntry("10.0.0.1", "Ethernet10", 1), 0),
      OpIntfIdRequest(opEntry("10.0.0.1", "Ethernet10", 2), 0), OpIntfIdRequest(opEntry("10.0.0.1", "Ethernet10", 2), 1),
      OpIntfIdRequest(opEntry("10.0.0.2", "Ethernet1", 0), 0)};
  std::vector<OpIntfIdRequest> shuffled(sorted.rbegin(), sorted.rend());
  std::swap(shuffled[1], shuffled[3]);
  std::sort(shuffled.begin(), shuffled.end());
  EXPECT_EQ(shuffled, sorted);
}

// Records which keys the table announced, in order.
struct Heard : ClientConfig::Notifiee {
  explicit Heard(Brio::Ptr<ClientConfig> const& t) : Notifiee(t) {}
  void handleRequest(Entry const& key) override { keys.push_back(Brio::strep(key.ipGenAddr()).str()); }
  void handleMountStatus() override { statuses.push_back(notifier()->mountStatus()); }
  std::vector<std::string> keys;
  std::vector<Shoal::MountStatus> statuses;
};

TEST(ProactiveArp, ClientTableNotifiesEachRealChangeOnce) {
  auto t = ClientConfig::clientConfigFactory("bgp", 4);
  Heard heard(t);
  Entry const a = entry("10.0.0.1", "Ethernet1"), b = entry("10.0.0.2", "Ethernet1");
  struct Step {
    char const* what;
    std::function<void()> op;
    std::vector<std::string> heard;
  };
  Step const steps[] = {
      {"add", [&] { t->requestIs(Request(a, 1)); }, {"10.0.0.1"}},
      {"same trigger again", [&] { t->requestIs(Request(a, 1)); }, {}},
      {"new trigger", [&] { t->requestIs(Request(a, 2)); }, {"10.0.0.1"}},
      {"re-announce", [&] { t->requestNotify(a); }, {"10.0.0.1"}},
      {"second key", [&] { t->requestIs(Request(b, 0)); }, {"10.0.0.2"}},
      {"delete absent", [&] { EXPECT_FALSE(t->requestDel(entry("10.0.0.3", "Ethernet1"))); }, {}},
      {"delete", [&] { EXPECT_TRUE(t->requestDel(b)); }, {"10.0.0.2"}},
      {"delete all", [&] { t->requestDelAll(); }, {"10.0.0.1"}},
  };
  for (auto const& s : steps) {
    heard.keys.clear();
    s.op();
    EXPECT_EQ(heard.keys, s.heard) << s.what;
  }
  EXPECT_EQ(t->requests(), 0u);
  EXPECT_EQ(t->request(a), Request()) << "an absent key reads as the default request";
  EXPECT_TRUE(t->quiesced());
}

TEST(ProactiveArp, FullTableRefusesAndOversizedRequestIsASizeError) {
  auto t = OpIntfIdClientConfig::opIntfIdClientConfigFactory("ospf", 2);
  EXPECT_TRUE(t->requestIs(OpIntfIdRequest(opEntry("10.0.0.1", "Ethernet1", 1), 0)));
  EXPECT_TRUE(t->requestIs(OpIntfIdRequest(opEntry("10.0.0.2", "Ethernet1", 1), 0)));
  EXPECT_FALSE(t->requestIs(OpIntfIdRequest(opEntry("10.0.0.3", "Ethernet1", 1), 0)));
  EXPECT_EQ(t->insertRefusedCount(), 1u);
  // Every key that fits has a request that fits: the longest interface
  // name is the same for both, in both table types.
  auto longestName = [](auto table, auto makeRequest) {
    for (std::size_t n = 1;; ++n) {
      try {
        table->requestIs(makeRequest(std::string(n, 'x')));
      } catch (Brio::SizeException const&) {
        return n - 1;
      }
    }
  };
  EXPECT_EQ(longestName(ClientConfig::clientConfigFactory("a"),
                        [](std::string const& n) { return Request(entry("ffff::1", n.c_str()), ~0ULL); }),
            72u);
  EXPECT_EQ(longestName(OpIntfIdClientConfig::opIntfIdClientConfigFactory("b"),
                        [](std::string const& n) { return OpIntfIdRequest(opEntry("ffff::1", n.c_str(), 1), 1); }),
            72u);
}

struct DirHeard : AllClientsConfig::Notifiee {
  explicit DirHeard(Brio::Ptr<AllClientsConfig> const& d) : Notifiee(d) {}
  void handleClientConfig(Brio::String const& name) override {
    names.push_back(name.str() + (notifier()->clientConfig(name) ? "+" : "-"));
  }
  std::vector<std::string> names;
};

TEST(ProactiveArp, DirectoryDropsAClientWithItsLastReference) {
  auto dir = allClientsConfigFactory("clients");
  DirHeard heard(dir);
  auto bgp = dir->clientConfigIs("bgp");
  EXPECT_EQ(dir->clientConfigIs("bgp"), bgp) << "the same name answers the same table";
  {
    Heard follower(bgp);  // a follower's reference keeps the table listed
    bgp = nullptr;
    EXPECT_NE(dir->clientConfig("bgp"), nullptr);
  }
  EXPECT_EQ(dir->clientConfig("bgp"), nullptr);
  EXPECT_EQ(heard.names, (std::vector<std::string>{"bgp+", "bgp-"}));

  // Unlisted by hand, a table lives on for its holder and its end is no
  // news to the directory.
  heard.names.clear();
  auto isis = dir->clientConfigIs("isis");
  dir->clientConfigDel("isis");
  dir->clientConfigDel("isis");
  isis->requestIs(Request(entry("10.0.0.1", "Ethernet1"), 1));
  isis = nullptr;
  EXPECT_EQ(heard.names, (std::vector<std::string>{"isis+", "isis-"}));

  // A directory that goes first leaves its tables working.
  auto ospf = dir->clientConfigIs("ospf");
  heard.notifierIs(nullptr);
  dir = nullptr;
  ospf->requestIs(Request(entry("10.0.0.2", "Ethernet1"), 1));
  EXPECT_EQ(ospf->requests(), 1u);
}

TEST(ProactiveArp, OpIntfIdDirectoryForgetsEveryClientOnDelAll) {
  auto dir = opIntfIdClientsConfigFactory("clients");
  auto a = dir->clientConfigIs("a");
  auto b = dir->clientConfigIs("b");
  EXPECT_EQ(dir->clientConfigs().size(), 2u);
  dir->clientConfigDelAll();
  EXPECT_TRUE(dir->clientConfigs().empty());
  a = nullptr;
  b = nullptr;
  EXPECT_TRUE(dir->clientConfigs().empty());
}

// A client process writes its table; this process follows it as the
// resolving agent does.
TEST(ProactiveArp, AgentFollowsAClientTableWrittenByAnotherProcess) {
  CorvidTest::ShoalRoot root;
  CorvidTest::Child client([](int in, int out) {
    Brio::ActivityManager loop;
    auto dir = allClientsConfigFactory("clients");
    auto table = dir->clientConfigIs("bgp");
    if (!table->mount("proactive/bgp", Shoal::MountMode::writer)) return 1;
    Entry const a = entry("10.0.0.1", "Ethernet1"), b = entry("2001:db8::1", "Ethernet2");
    for (std::string cmd; !(cmd = CorvidTest::readLine(in, 20)).empty();) {
      if (cmd == "add") table->requestIs(Request(a, 1)), table->requestIs(Request(b, 1));
      if (cmd == "bump") table->requestIs(Request(b, 2));
      if (cmd == "del") table->requestDel(a);
      table->requestCommit();
      CorvidTest::writeLine(out, "ok " + cmd);
    }
    return 0;
  });
  Brio::ActivityManager loop;
  auto table = ClientConfig::clientConfigFactory("bgp");
  Heard heard(table);
  ASSERT_TRUE(table->mount("proactive/bgp", Shoal::MountMode::reader));
  auto seen = [&] {
    std::string s;
    for (auto const& [k, r] : table->requestSnapshot()) s += Brio::strep(k.ipGenAddr()).str() + "=" +
                                                             std::to_string(r.triggerResolution()) + " ";
    return s;
  };
  struct Step {
    char const* cmd;
    char const* table;
    std::vector<std::string> heard;
  };
  Step const steps[] = {
      {"add", "10.0.0.1=1 2001:db8::1=1 ", {"10.0.0.1", "2001:db8::1"}},
      {"bump", "10.0.0.1=1 2001:db8::1=2 ", {"2001:db8::1"}},
      {"del", "2001:db8::1=2 ", {"10.0.0.1"}},
  };
  for (auto const& s : steps) {
    heard.keys.clear();
    ASSERT_TRUE(client.send(s.cmd));
    ASSERT_EQ(client.line(10), std::string("ok ") + s.cmd);
    EXPECT_TRUE(loop.runUntil([&] { return seen() == s.table && table->quiesced(); }, 10)) << s.cmd << ": " << seen();
    std::sort(heard.keys.begin(), heard.keys.end());
    EXPECT_EQ(heard.keys, s.heard) << s.cmd;
  }
  EXPECT_EQ(table->mountStatus(), Shoal::MountStatus::mounted);
  ASSERT_FALSE(heard.statuses.empty());
  EXPECT_EQ(heard.statuses.back(), Shoal::MountStatus::mounted);
}

}  // namespace
