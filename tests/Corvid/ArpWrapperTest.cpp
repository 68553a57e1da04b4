// IPv6 neighbour requests: what the kernel makes of each one, read back with
// `ip -6 neigh`. A wrong flag shows there too: without NLM_F_CREATE the
// first add fails, without NLM_F_REPLACE a changed MAC is ignored.
#include <Corvid/ArpWrapper.h>
#include <Corvid/NetlinkUtils.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/NetnsScope.h"

using namespace Arp;
using Corvid::EthAddr;
using Corvid::Ip6Addr;
using CorvidTest::NamedNetns;

namespace {

Ip6Addr const addr = Brio::strepToValue<Ip6Addr>("2001:db8::5");
EthAddr const mac = Brio::strepToValue<EthAddr>("02:00:00:00:00:05");

}  // namespace

TEST(ArpWrapper, KernelHoldsTheStateEachRequestAsksFor) {
  NamedNetns ns("arpw");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  auto const link = nlohmann::json::parse(CorvidTest::shOutput("ip -n " + ns.name() + " -j link show veth0"));
  U32 const ifindex = link.at(0).at("ifindex").get<U32>();
  Corvid::netlinkHandle h;
  Corvid::createNetlinkSocket(&h, 0, ns.c_str(), NETLINK_ROUTE, false, 0);
  auto shown = [&] {
    auto const j = nlohmann::json::parse(
        CorvidTest::shOutput("ip -n " + ns.name() + " -6 -j neigh show dev veth0 to 2001:db8::5"));
    std::string out;
    for (auto const& n : j) {
      out += n.value("lladdr", "-");
      for (auto const& s : n.value("state", nlohmann::json::array())) out += " " + s.get<std::string>();
    }
    return out;
  };
  struct Case {
    NeighState state;
    char const* mac;
    char const* shown;
  } const cases[] = {
      {NeighState::permanent, "02:00:00:00:00:05", "02:00:00:00:00:05 PERMANENT"},
      {NeighState::stale, "02:00:00:00:00:05", "02:00:00:00:00:05 STALE"},
      {NeighState::reachable, "02:00:00:00:00:06", "02:00:00:00:00:06 REACHABLE"},
  };
  for (auto const& c : cases) {
    EthAddr const m = Brio::strepToValue<EthAddr>(c.mac);
    EXPECT_EQ(Corvid::getNetlinkResponse(h.fd, ip6NeighAdd(h.fd, ifindex, addr, m, c.state)), 0);
    EXPECT_EQ(shown(), c.shown);
  }
  EXPECT_EQ(Corvid::getNetlinkResponse(h.fd, ip6NeighDel(h.fd, ifindex, addr, NeighState::permanent)), 0);
  EXPECT_EQ(shown(), "");
  EXPECT_EQ(Corvid::getNetlinkResponse(h.fd, ip6NeighDel(h.fd, ifindex, addr, NeighState::permanent)), -ENOENT);
  // NTF_USE asks the kernel to resolve: an entry appears, being probed.
  EXPECT_EQ(Corvid::getNetlinkResponse(h.fd, ip6NeighAdd(h.fd, ifindex, addr, mac, NeighState::use)), 0);
  EXPECT_FALSE(shown().empty());
  Corvid::closeNetlinkSocket(&h);
}
