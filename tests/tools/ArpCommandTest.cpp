// `corvid arp` against a table this test writes and a namespace it makes.
#include <gtest/gtest.h>
#include <neighbor/ArpTable.h>

#include "support/NetnsScope.h"
#include "support/ShoalScope.h"
#include "tools/ToolProcess.h"

using CorvidTest::runCorvid;

TEST(ArpCommand, DumpPrintsTheTableAnotherProcessWrites) {
  CorvidTest::ShoalRoot root;
  Brio::ActivityManager loop;
  auto table = Arp::Table::Status::statusFactory("arp", 16);
  ASSERT_TRUE(table->mount("arp/status", Shoal::MountMode::writer)) << table->reason();
  U8 const mac[6] = {2, 0, 0, 0, 0, 7};
  table->arpEntryIs(Arp::Table::ArpEntry(
      Arp::Table::ArpKey(Vrf::VrfIdMap::VrfId(4), Brio::strepToValue<Corvid::IpGenAddr>("192.0.2.7"),
                         Corvid::IntfId("et7")),
      Corvid::EthAddr(mac), true, Arp::ArpSource(Arp::ArpSource::ArpSourceId::evpn)));
  table->commit();
  auto const text = runCorvid({"arp", "dump"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out, "4 192.0.2.7 et7 02:00:00:00:00:07 static evpn\n");
  auto const json = runCorvid({"arp", "dump", "--json"});
  EXPECT_EQ(json.out,
            "{\"vrfId\":4,\"addr\":\"192.0.2.7\",\"intf\":\"et7\",\"mac\":\"02:00:00:00:00:07\",\"static\":true,"
            "\"source\":\"evpn\"}\n");
}

TEST(ArpCommand, Add6AndDel6ChangeTheKernelTable) {
  CorvidTest::NamedNetns ns("arpcmd");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  auto shown = [&] { return CorvidTest::shOutput("ip -n " + ns.name() + " -6 neigh show dev veth0 to 2001:db8::9"); };
  auto r = runCorvid({"arp", "add6", "--ns", ns.name(), "--dev", "veth0", "2001:db8::9", "02:00:00:00:00:09",
                      "--state", "stale"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(shown().find("2001:db8::9 lladdr 02:00:00:00:00:09 STALE"), std::string::npos) << shown();
  r = runCorvid({"arp", "del6", "--ns", ns.name(), "--dev", "veth0", "2001:db8::9"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(shown(), "");
}

TEST(ArpCommand, BadInvocationsFailClearly) {
  CorvidTest::ShoalRoot root;  // empty: no table
  struct Case {
    std::vector<std::string> args;
    int status;
    char const* message;
  } const cases[] = {
      {{"arp", "flush"}, 2, "unknown arp command 'flush'"},
      {{"arp", "dump"}, 1, "is not there"},
      {{"arp", "add6", "--dev", "lo", "10.0.0.1", "02:00:00:00:00:01"}, 2, "Ip6Addr"},
      {{"arp", "del6", "--dev", "lo", "2001:db8::1", "--state", "gone"}, 2, "--state takes"},
      {{"arp", "del6", "--dev", "corvid-none0", "2001:db8::1"}, 1, "corvid-none0 in namespace default"},
  };
  for (auto const& c : cases) {
    auto const r = runCorvid(c.args);
    EXPECT_EQ(r.status, c.status) << c.message;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}
