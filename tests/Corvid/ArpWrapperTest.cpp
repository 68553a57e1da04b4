// IPv6 neighbour requests: the exact bytes on the wire, and what the kernel
// makes of them (read back with `ip -6 neigh`).
#include <Corvid/ArpWrapper.h>
#include <Corvid/NetlinkUtils.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "support/NetnsScope.h"

using namespace Arp;
using Corvid::EthAddr;
using Corvid::Ip6Addr;
using CorvidTest::NamedNetns;

namespace {

std::string hex(U8 const* p, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

Ip6Addr const addr = Brio::strepToValue<Ip6Addr>("2001:db8::5");
EthAddr const mac = Brio::strepToValue<EthAddr>("02:00:00:00:00:05");

}  // namespace

TEST(ArpWrapper, RequestsHaveTheExactBytes) {
  // Header (length, type, flags, sequence as 'ssssssss', port 0), neighbour
  // header (family 10, ifindex 7, state, flags), NDA_DST, NDA_LLADDR.
  struct Case {
    NeighState state;
    bool add;
    char const* bytes;
  } const cases[] = {
      {NeighState::permanent, true,
       "3c0000001c000505ssssssss00000000" "0a00000007000000" "80000000" "1400010020010db8000000000000000000000005"
       "0a000200020000000005" "0000"},
      {NeighState::stale, true,
       "3c0000001c000505ssssssss00000000" "0a00000007000000" "04000000" "1400010020010db8000000000000000000000005"
       "0a000200020000000005" "0000"},
      {NeighState::reachable, true,
       "3c0000001c000505ssssssss00000000" "0a00000007000000" "02000000" "1400010020010db8000000000000000000000005"
       "0a000200020000000005" "0000"},
      {NeighState::use, true,
       "3c0000001c000505ssssssss00000000" "0a00000007000000" "00000100" "1400010020010db8000000000000000000000005"
       "0a000200020000000005" "0000"},
      {NeighState::permanent, false,
       "300000001d000500ssssssss00000000" "0a00000007000000" "80000000" "1400010020010db8000000000000000000000005"},
  };
  for (auto const& c : cases) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
    U32 const seq = c.add ? ip6NeighAdd(sv[0], 7, addr, mac, c.state) : ip6NeighDel(sv[0], 7, addr, c.state);
    U8 buf[128];
    ssize_t const n = recv(sv[1], buf, sizeof buf, 0);
    std::string expected = c.bytes;
    std::string const s = hex(reinterpret_cast<U8 const*>(&seq), 4);
    expected.replace(expected.find("ssssssss"), 8, s);
    EXPECT_EQ(hex(buf, n > 0 ? static_cast<std::size_t>(n) : 0), expected) << "state " << int(c.state);
    close(sv[0]);
    close(sv[1]);
  }
}

TEST(ArpWrapper, KernelHoldsTheStateEachRequestAsksFor) {
  NamedNetns ns("arpw");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  U32 const ifindex = nlohmann::json::parse(CorvidTest::shOutput("ip -n " + ns.name() + " -j link show veth0"))
                          .at(0)
                          .at("ifindex")
                          .get<U32>();
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
    char const* shown;
  } const cases[] = {
      {NeighState::permanent, "02:00:00:00:00:05 PERMANENT"},
      {NeighState::stale, "02:00:00:00:00:05 STALE"},
      {NeighState::reachable, "02:00:00:00:00:05 REACHABLE"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(Corvid::getNetlinkResponse(h.fd, ip6NeighAdd(h.fd, ifindex, addr, mac, c.state)), 0);
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
