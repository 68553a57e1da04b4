// Netlink helpers: requests the kernel accepts (checked with iproute2), the
// acknowledgement reader against replies the test forges, and the attribute
// readers. The bounded message walk meets its hostile lengths through the
// namespace watcher (NetlinkNetNsSmTest), which counts what it refused.
#include <Corvid/NetlinkDecode.h>
#include <Corvid/NetlinkUtils.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::shOutput;

namespace {

std::vector<U8> attr(U16 type, std::vector<U8> payload, int lenOverride = -1) {
  U16 const len = lenOverride >= 0 ? U16(lenOverride) : U16(RTA_LENGTH(payload.size()));
  std::vector<U8> out = {U8(len), U8(len >> 8), U8(type), U8(type >> 8)};
  out.insert(out.end(), payload.begin(), payload.end());
  out.resize(RTA_ALIGN(out.size()));
  return out;
}

}  // namespace

TEST(NetlinkUtils, RequestsAreAppliedByTheKernel) {
  NamedNetns ns("nlu");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  // The handle's socket lives in the namespace, so its requests act there.
  netlinkHandle h;
  createNetlinkSocket(&h, 0, ns.c_str(), NETLINK_ROUTE, true, 65536);
  int const ifindex = std::stoi(shOutput("ip -n " + ns.name() + " -o link show veth0 | cut -d: -f1"));
  setDeviceGroup(&h, ifindex, 7);
  EXPECT_NE(shOutput("ip -n " + ns.name() + " -d link show veth0").find("group 7"), std::string::npos);
  delDeviceGroup(&h, ifindex);
  EXPECT_NE(shOutput("ip -n " + ns.name() + " -d link show veth0").find("group default"), std::string::npos);
  EXPECT_THROW(setDeviceGroup(&h, 999999, 1), Brio::ErrnoException);

  // Two requests in one datagram: the kernel applies and acknowledges both.
  alignas(nlmsghdr) U8 two[2][NLMSG_SPACE(sizeof(ifinfomsg)) + RTA_SPACE(4)] = {};
  for (int i = 0; i < 2; ++i) {
    auto* m = reinterpret_cast<nlmsghdr*>(two[i]);
    m->nlmsg_len = sizeof two[i];
    m->nlmsg_type = RTM_NEWLINK;
    m->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    m->nlmsg_seq = 100 + i;
    reinterpret_cast<ifinfomsg*>(NLMSG_DATA(m))->ifi_index = ifindex;
    auto* a = reinterpret_cast<rtattr*>(two[i] + NLMSG_SPACE(sizeof(ifinfomsg)));
    a->rta_len = RTA_LENGTH(4);
    a->rta_type = IFLA_GROUP;
    U32 const group = 20 + i;
    std::memcpy(RTA_DATA(a), &group, 4);
  }
  sendNetlinkVec(&h, reinterpret_cast<nlmsghdr*>(two), 2);
  EXPECT_EQ(getNetlinkResponse(h.fd, 100), 0);
  EXPECT_EQ(getNetlinkResponse(h.fd, 101), 0);
  EXPECT_NE(shOutput("ip -n " + ns.name() + " link show veth0").find("group 21"), std::string::npos);
  closeNetlinkSocket(&h);
}

TEST(NetlinkUtils, PrioQdiscIsInstalledOnTheInterface) {
  CorvidTest::NetnsScope scope;
  CORVID_REQUIRE_NETNS(scope);
  ASSERT_TRUE(scope.vethPair("pq0", "pq1"));
  // Kernels built without the prio scheduler refuse it to tc as well.
  if (CorvidTest::sh("tc qdisc add dev pq1 root handle 1: prio 2>/dev/null") != 0) {
    EXPECT_THROW(addPrioQdisc("pq0"), Brio::ErrnoException);
    GTEST_SKIP() << "this kernel has no prio qdisc (tc refuses it too)";
  }
  addPrioQdisc("pq0");
  std::string const tc = shOutput("tc qdisc show dev pq0");
  EXPECT_NE(tc.find("qdisc prio 1: root"), std::string::npos) << tc;
  EXPECT_NE(tc.find("bands 3 priomap 1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1"), std::string::npos) << tc;
}

TEST(NetlinkUtilsDeathTest, PrioQdiscOnAMissingInterfaceAborts) {
  EXPECT_DEATH(addPrioQdisc("corvid-none0"), "ifIndex > 0");
}

TEST(NetlinkUtils, ResponseReaderChecksEveryFieldOfTheReply) {
  // What getNetlinkResponse(fd, 5) makes of one datagram: "code N", or the
  // text of the exception it raised.
  auto outcome = [](std::vector<U8> const& reply) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv);
    send(sv[1], reply.data(), reply.size(), 0);
    std::string out;
    try {
      out = "code " + std::to_string(getNetlinkResponse(sv[0], 5));
    } catch (Brio::InternalException const& e) {
      out = e.what();
    }
    close(sv[0]);
    close(sv[1]);
    return out;
  };
  auto reply = [](U32 len, U16 type, U32 seq, std::vector<U8> tail) {
    nlmsghdr h{len, type, 0, seq, 0};
    std::vector<U8> out(reinterpret_cast<U8*>(&h), reinterpret_cast<U8*>(&h) + sizeof h);
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
  };
  std::vector<U8> const eperm = {0xff, 0xff, 0xff, 0xff};  // -1
  struct Case {
    char const* what;
    std::vector<U8> reply;
    char const* outcome;  // the start of it
  } const cases[] = {
      {"ack", reply(36, NLMSG_ERROR, 5, std::vector<U8>(20, 0)), "code 0"},
      {"error code", reply(36, NLMSG_ERROR, 5, eperm), "code -1"},
      {"short", {1, 2, 3}, "incomplete netlink response, expecting at least 16, saw 3"},
      {"sequence", reply(36, NLMSG_ERROR, 6, eperm), "netlink sequence number mismatch, expecting 5"},
      {"type", reply(20, NLMSG_DONE, 5, eperm), "got unexpected message type 3"},
      {"no error record", reply(16, NLMSG_ERROR, 5, {}), "incomplete NLMSG_ERROR response, expecting at least 20"},
  };
  for (auto const& c : cases) {
    EXPECT_TRUE(outcome(c.reply).starts_with(c.outcome)) << c.what << ": " << outcome(c.reply);
  }
}

// Addresses are read by the watcher's decoder (both families against ip in
// NetlinkNetNsSmTest, a short one among its hostile datagrams).
TEST(NetlinkUtils, CacheInfoAttributeText) {
  auto rta = [](std::vector<U8> const& bytes) { return reinterpret_cast<rtattr const*>(bytes.data()); };
  nda_cacheinfo ci{1, 2, 3, 4};
  std::vector<U8> payload(reinterpret_cast<U8*>(&ci), reinterpret_cast<U8*>(&ci) + sizeof ci);
  EXPECT_EQ(getCacheInfo(rta(attr(NDA_CACHEINFO, payload))), "NDA_CACHEINFO:\nconfirmed=1 used=2 updated=3 refcnt=4");
  EXPECT_EQ(getCacheInfo(rta(attr(NDA_CACHEINFO, {1, 2}))), "");
}

TEST(NetlinkDecode, NeighStatesPrintAsIpDoes) {
  struct Case {
    U16 state;
    char const* text;
  } const cases[] = {{0, "NONE"}, {NUD_STALE | NUD_NOARP, "STALE|NOARP"}, {NUD_FAILED, "FAILED"}};
  for (auto const& c : cases) EXPECT_EQ(neighStateText(c.state), c.text);
}
