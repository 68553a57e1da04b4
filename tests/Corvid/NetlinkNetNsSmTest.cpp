// The namespace watcher against the kernel: the state a client rebuilds from
// the callback must equal what `ip -j` reports, after the dump, after
// changes, and after every forced loss and resync. Fault injection (a
// datagram the test writes) covers what the kernel will not do on demand.
#include <Corvid/NetlinkDecode.h>
#include <Corvid/NetlinkNetNsSm.h>
#include <Corvid/NetlinkUtils.h>
#include <Corvid/RtnlMirror.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::shOutput;

namespace {

constexpr U32 allGroups = RTMGRP_LINK | RTMGRP_NEIGH | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;

// Runs the loop until `done` or a bounded time; never hangs a test.
bool runUntil(std::function<bool()> const& done, double seconds = 20) {
  return Brio::ActivityManager::current()->runUntil(done, seconds);
}

// A namespace's links, addresses and neighbours, one line each in the form
// both sides below print: "link 2 veth0", "addr 2 10.0.0.1/8",
// "neigh 2 10.0.0.5 02:00:00:00:05:01".
using State = std::set<std::string>;

// Multicast neighbours (ff02::/16 on IPv6) are made by the kernel in the
// NOARP state without any notification, so only a dump can show them: a
// follower cannot be expected to know them. Both sides leave them out.
void addLine(State& s, std::string line) {
  if (line.find(" ff02:") == std::string::npos) s.insert(std::move(line));
}

// The kernel tests' client: an RtnlMirror, counting finished resyncs
// (resyncInProgress falling).
class Mirror : public NetlinkNetNsSm::Notifiee {
 public:
  RtnlMirror mirror;
  NetlinkNetNsSm* sm;
  int cleanups = 0;

  explicit Mirror(std::string const& ns, U32 groups = allGroups)
      : mirror(NamespaceName(Brio::String(ns)), groups), sm(mirror.sm()) {
    notifierIs(Brio::Ptr<NetlinkNetNsSm>(sm));
  }
  void handleResyncInProgress() override { cleanups += !sm->resyncInProgress(); }
  State state() const {
    State s;
    for (auto const& [i, e] : mirror.links()) addLine(s, "link " + std::to_string(i) + ' ' + e.value.name.name().str());
    for (auto const& [k, e] : mirror.addrs()) {
      addLine(s, "addr " + std::to_string(k.first) + ' ' + Brio::strep(k.second).str());
    }
    for (auto const& [k, e] : mirror.neighs()) {
      std::string const mac = e.value.hasMac ? Brio::strep(e.value.mac).str() : "-";
      addLine(s, "neigh " + std::to_string(k.first) + ' ' + Brio::strep(k.second).str() + ' ' + mac);
    }
    return s;
  }
};

// The kernel's view through iproute2, of the kinds `groups` watches. "nud
// all": the watcher hears of neighbours in every state, NOARP ones included.
State kernelState(NamedNetns const& ns, U32 groups) {
  auto ip = [&](std::string const& what) {
    return nlohmann::json::parse(shOutput("ip -n " + ns.name() + " -j " + what));
  };
  bool const addrs = groups & (RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
  State s;
  std::map<std::string, int> index;
  for (auto const& l : ip("link show")) {
    index[l.at("ifname").get<std::string>()] = l.at("ifindex").get<int>();
    if (groups & RTMGRP_LINK) addLine(s, "link " + l.at("ifindex").dump() + ' ' + l.at("ifname").get<std::string>());
  }
  for (auto const& l : addrs ? ip("addr show") : nlohmann::json::array()) {
    for (auto const& a : l.at("addr_info")) {
      std::string const local = a.at("local").get<std::string>();
      addLine(s, "addr " + l.at("ifindex").dump() + ' ' + local + '/' + a.at("prefixlen").dump());
    }
  }
  for (auto const& n : (groups & RTMGRP_NEIGH) ? ip("neigh show nud all") : nlohmann::json::array()) {
    std::string const dev = n.at("dev").get<std::string>(), dst = n.at("dst").get<std::string>();
    addLine(s, "neigh " + std::to_string(index[dev]) + ' ' + dst + ' ' + n.value("lladdr", "-"));
  }
  return s;
}

// The neighbours the test made (10/8 on veth0): unlike the link-local ones
// the kernel resolves meanwhile, they are on both sides at once.
State made(State const& s) {
  State out;
  std::copy_if(s.begin(), s.end(), std::inserter(out, out.end()),
               [](std::string const& l) { return l.starts_with("neigh ") && l.find(" 10.") != std::string::npos; });
  return out;
}

// The mirror must equal the kernel once the notifications in flight have
// landed: polls for a bounded time, then shows what differs.
void expectMirrors(Mirror const& m, NamedNetns const& ns) {
  State kernel, mirror;
  runUntil([&] { return (kernel = kernelState(ns, m.sm->netlinkGroups())) == (mirror = m.state()); }, 5);
  std::vector<std::string> missing, stale;
  std::ranges::set_difference(kernel, mirror, std::back_inserter(missing));
  std::ranges::set_difference(mirror, kernel, std::back_inserter(stale));
  EXPECT_EQ(missing, std::vector<std::string>{});
  EXPECT_EQ(stale, std::vector<std::string>{});
}

// Runs `ip -batch` with neighbour commands on veth0 for 10.x.y.z, x.y.z
// counting up from `from` (deletions ignore the link-layer address and state).
void neighBatch(NamedNetns const& ns, char const* verb, int from, int count) {
  FILE* ip = popen(("ip -n " + ns.name() + " -batch -").c_str(), "w");
  ASSERT_NE(ip, nullptr);
  for (int i = from; i < from + count; ++i) {
    int const x = i >> 16 & 255, y = i >> 8 & 255, z = i & 255;
    fprintf(ip, "neigh %s 10.%d.%d.%d lladdr 02:00:%02x:%02x:%02x:01 nud permanent dev veth0\n", verb, x, y, z, x,
            y, z);
  }
  ASSERT_EQ(pclose(ip), 0);
}

// A namespace with a veth pair, addresses of both families and `neighbours`
// permanent neighbours.
bool populate(NamedNetns const& ns, int neighbours) {
  if (!ns.ok()) return false;
  if (ns.ip("link add veth0 type veth peer name veth1") || ns.ip("link set veth0 up") || ns.ip("link set veth1 up") ||
      ns.ip("addr add 10.0.0.1/8 dev veth0") || ns.ip("addr add 2001:db8::1/64 dev veth0 nodad")) {
    return false;
  }
  if (neighbours) neighBatch(ns, "add", 2, neighbours);
  return true;
}

}  // namespace

TEST(NetlinkNetNsSm, DumpThenFollowMatchesTheKernelAfterEveryStep) {
  Brio::ActivityManager loop;
  NamedNetns ns("nlw");
  CORVID_REQUIRE_NETNS(ns);
  ASSERT_TRUE(populate(ns, 2000));
  Mirror m(ns.name());
  m.sm->doInitializeNetlinkSocket(false);
  ASSERT_TRUE(runUntil([&] { return m.mirror.synced(); }));
  EXPECT_EQ(made(m.state()), made(kernelState(ns, RTMGRP_NEIGH)));

  neighBatch(ns, "add", 5000, 50);
  neighBatch(ns, "del", 2, 30);
  ASSERT_EQ(ns.ip("addr add 192.0.2.9/24 dev veth1"), 0);
  ASSERT_EQ(ns.ip("link add veth2 type veth peer name veth3"), 0);
  ASSERT_TRUE(runUntil([&] {
    return made(m.state()).size() == 2020 && m.mirror.links().size() == 5 && m.mirror.addrs().size() >= 4;
  }));
  expectMirrors(m, ns);
  EXPECT_EQ(m.sm->resyncAttempts(), 0u);
  EXPECT_EQ(m.mirror.malformed(), 0u);
}

// A time budget far too short for the dump: the watcher's synchronous call
// returns early, as it may; the mirror's synchronous start finishes it. The
// synchronous call with the default budget is walked by the deleted
// namespace test below.
TEST(NetlinkNetNsSm, SynchronousStartFinishesADumpTheTimeBudgetCutShort) {
  Brio::ActivityManager loop;
  NamedNetns ns("nls");
  CORVID_REQUIRE_NETNS(ns);
  ASSERT_TRUE(populate(ns, 300));
  Mirror m(ns.name(), RTMGRP_NEIGH);
  m.sm->maxProcessingTimeIs(1e-6);
  m.mirror.start(true);
  EXPECT_TRUE(m.mirror.synced());
  EXPECT_EQ(made(m.state()), made(kernelState(ns, RTMGRP_NEIGH)));
}

// Floods of neighbour changes against a receive buffer forced tiny: the
// subscription socket overflows, ENOBUFS triggers a resync 3 s later (manual
// time), and after the sweep the mirror equals the kernel again, with the
// entries deleted during the loss swept. Several rounds in one watcher.
TEST(NetlinkNetNsSm, ResyncAfterEnobufsRestoresTheKernelStateEveryRound) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  NamedNetns ns("nlb");
  CORVID_REQUIRE_NETNS(ns);
  ASSERT_TRUE(populate(ns, 1500));
  setenv("NL_RCVBUFSIZE", "4096", 1);  // read whenever sockets (re)open
  Mirror m(ns.name());
  m.sm->doInitializeNetlinkSocket(false);

  // The first loss comes while the dump sequencer is past its start (the
  // link dump in, the address request outstanding): the resync must still
  // start a clean dump. The reading socket is swapped for a subscribed one
  // the test overflowed.
  ASSERT_EQ(m.sm->requestDumpState(), RequestDumpState::rdsCouldSendIpRequest);
  netlinkHandle overflowing;
  createNetlinkSocket(&overflowing, RTMGRP_NEIGH, ns.c_str(), NETLINK_ROUTE, true, 1);
  neighBatch(ns, "add", 20000, 400);
  m.sm->netlinkFdIs(overflowing.fd);
  ASSERT_TRUE(runUntil([&] { return m.sm->enobufsCount() == 1; }));
  loop.advanceTime(3.0);
  ASSERT_TRUE(runUntil([&] { return m.mirror.synced(); }));
  expectMirrors(m, ns);

  int next = 10000;
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    U32 const swept = m.mirror.swept();
    // Nobody reads while the kernel sends: deletions and additions pile up.
    neighBatch(ns, "del", 2 + (round - 1) * 300, 300);
    neighBatch(ns, "add", next, 1500);
    next += 1500;
    ASSERT_TRUE(runUntil([&] { return m.sm->enobufsCount() == static_cast<U32>(round + 1); }));
    EXPECT_EQ(m.sm->netlinkFd()->descriptor(), -1) << "the reading socket closes at once";
    loop.advanceTime(2.9);
    EXPECT_EQ(m.sm->resyncAttempts(), static_cast<U32>(round)) << "not before 3 s";
    loop.advanceTime(0.1);
    EXPECT_EQ(m.sm->resyncAttempts(), static_cast<U32>(round + 1));
    ASSERT_TRUE(runUntil([&] { return m.mirror.synced(); }));
    EXPECT_EQ(m.cleanups, round + 1);
    EXPECT_GE(m.mirror.swept() - swept, 300u) << "entries deleted during the loss are swept";
    expectMirrors(m, ns);
  }
  unsetenv("NL_RCVBUFSIZE");
}

TEST(NetlinkNetNsSm, DeletedNamespaceIsCountedOnceAndRetriedEveryThreeSeconds) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  NamedNetns ns("nld");
  CORVID_REQUIRE_NETNS(ns);
  Mirror m(ns.name(), RTMGRP_LINK);
  m.sm->doInitializeNetlinkSocket(true);
  ASSERT_TRUE(m.mirror.synced());
  ASSERT_EQ(CorvidTest::sh("ip netns del " + ns.name()), 0);
  m.sm->doTriggerResync();
  for (U32 attempt = 1; attempt <= 3; ++attempt) {
    loop.advanceTime(3.0);
    EXPECT_EQ(m.sm->resyncAttempts(), attempt);
    EXPECT_EQ(m.sm->enoentCount(), 1u) << "set, not incremented";
    EXPECT_EQ(m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
  }
  ASSERT_EQ(CorvidTest::sh("ip netns add " + ns.name()), 0);
  loop.advanceTime(3.0);
  ASSERT_TRUE(runUntil([&] { return m.sm->netlinkSubscriptionSocket() == -1 && m.cleanups == 1; }, 5));
  expectMirrors(m, ns);
}

// ---- injected datagrams -------------------------------------------------------

namespace {

// A client that records what the watcher hands it ("neigh 7 192.0.2.1",
// "link 3"), the messages the decoder refused and the clear-resync calls.
// No sweep hook: none of these watchers finishes a resync.
struct Recorder {
  std::set<std::string> seen;
  int clears = 0, malformed = 0;
  Brio::Ptr<NetlinkNetNsSm> sm;

  explicit Recorder(U32 groups, bool keepSynced = true, std::string const& ns = "corvid-unused") {
    struct OnMessage : NetlinkMessageCallback {
      explicit OnMessage(Recorder* r) : NetlinkMessageCallback("recorder"), r(r) {}
      void callback(nlmsghdr* const& msg) override {
        RtnlMessage const m = decodeRtnl(msg);
        r->malformed += m.kind == RtnlMessage::Kind::malformed;
        if (m.kind == RtnlMessage::Kind::link) r->seen.insert("link " + std::to_string(m.link.ifIndex));
        if (m.kind == RtnlMessage::Kind::neigh) {
          r->seen.insert("neigh " + std::to_string(m.neigh.ifIndex) + ' ' + Brio::strep(m.neigh.addr).str());
        }
      }
      Recorder* r;
    };
    struct OnClear : ClearResyncStateCallback {
      explicit OnClear(Recorder* r) : ClearResyncStateCallback("recorder"), r(r) {}
      void callback() override { ++r->clears; }
      Recorder* r;
    };
    sm = netlinkNetNsSmFactory(NamespaceName(Brio::String(ns)), groups, NETLINK_ROUTE, keepSynced,
                               new OnMessage(this), nullptr, new OnClear(this));
  }
  ~Recorder() { sm->handleDestruction(); }
};

// A recorder whose watcher reads one end of a datagram socket pair; the test
// writes to and reads from the other end, `peer`.
struct Injected {
  int peer = -1;
  Recorder m;
  explicit Injected(U32 groups = RTMGRP_NEIGH) : m(groups) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv);
    m.sm->netlinkFdIs(sv[0]);
    peer = sv[1];
  }
  ~Injected() { close(peer); }
  void send(std::vector<U8> const& bytes) const { ::send(peer, bytes.data(), bytes.size(), 0); }
};

// Builds a datagram of messages; each is {type, flags, payload bytes, length,
// sequence}, with the length taken from the payload unless `len` overrides it.
struct Msg {
  U16 type;
  U16 flags = 0;
  std::vector<U8> payload = {};
  int len = -1;
  U32 seq = 0;
};
std::vector<U8> datagram(std::initializer_list<Msg> msgs) {
  std::vector<U8> out;
  for (auto const& m : msgs) {
    nlmsghdr h{};
    h.nlmsg_len = m.len >= 0 ? static_cast<U32>(m.len) : static_cast<U32>(NLMSG_HDRLEN + m.payload.size());
    h.nlmsg_type = m.type;
    h.nlmsg_flags = m.flags;
    h.nlmsg_seq = m.seq;
    auto const* p = reinterpret_cast<U8 const*>(&h);
    out.insert(out.end(), p, p + sizeof h);
    out.insert(out.end(), m.payload.begin(), m.payload.end());
    out.resize(NLMSG_ALIGN(out.size()));
  }
  return out;
}

// An RTM_NEWNEIGH payload for 192.0.2.x on ifindex 7, optionally with its
// destination attribute's length field or its family replaced.
std::vector<U8> neighPayload(U8 x, int dstLen = -1, U8 family = AF_INET) {
  std::vector<U8> p(sizeof(ndmsg), 0);
  auto* nd = reinterpret_cast<ndmsg*>(p.data());
  nd->ndm_family = family;
  nd->ndm_ifindex = 7;
  nd->ndm_state = NUD_PERMANENT;
  U16 const rtaLen = dstLen >= 0 ? static_cast<U16>(dstLen) : RTA_LENGTH(4);
  U16 const rtaType = NDA_DST;
  p.insert(p.end(), {U8(rtaLen), U8(rtaLen >> 8), U8(rtaType), U8(rtaType >> 8), 192, 0, 2, x});
  return p;
}

std::vector<U8> const done = datagram({{NLMSG_DONE, 0, {0, 0, 0, 0}}});

}  // namespace

TEST(NetlinkNetNsSm, HostileDatagramsEndTheWalkAndTheWatcherKeepsWorking) {
  Brio::ActivityManager loop;
  struct Case {
    char const* what;
    std::vector<U8> bytes;
    int malformedWalks;     // datagrams whose walk stopped early
    int malformedDecodes;   // messages the decoder refused
    std::size_t delivered;  // neighbours that reached the client
  } const cases[] = {
      {"length past the datagram", datagram({{RTM_NEWNEIGH, 0, neighPayload(1), 4000}}), 1, 0, 0},
      {"length below the header", datagram({{RTM_NEWNEIGH, 0, {}, 8}}), 1, 0, 0},
      {"good, then zero length", datagram({{RTM_NEWNEIGH, 0, neighPayload(1)}, {RTM_NEWNEIGH, 0, {}, 0}}), 1, 0, 1},
      {"attribute past its message", datagram({{RTM_NEWNEIGH, 0, neighPayload(1, 200)}}), 0, 1, 0},
      {"fixed header cut short", datagram({{RTM_NEWNEIGH, 0, {1, 2, 3}}}), 0, 1, 0},
      {"address too short for its family", datagram({{RTM_NEWNEIGH, 0, neighPayload(1, -1, AF_INET6)}}), 0, 1, 0},
      {"last one unaligned but inside", datagram({{NLMSG_NOOP, 0, {0}, 17}}), 0, 0, 0},
      {"noop and error pass", datagram({{NLMSG_NOOP}, {NLMSG_ERROR, 0, {0xfe, 0xff, 0xff, 0xff}}, {NLMSG_ERROR}}), 0, 0, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    Injected in;
    in.send(c.bytes);
    in.send(datagram({{RTM_NEWNEIGH, 0, neighPayload(99)}}));  // the watcher must still read this
    ASSERT_TRUE(runUntil([&] { return in.m.seen.count("neigh 7 192.0.2.99"); }, 5));
    EXPECT_EQ(in.m.sm->malformedCount(), static_cast<U32>(c.malformedWalks));
    EXPECT_EQ(in.m.malformed, c.malformedDecodes);
    EXPECT_EQ(in.m.seen.size(), c.delivered + 1);
  }
}

TEST(NetlinkNetNsSm, DumpIntrStartsAResyncAndDropsTheSubscription) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  Injected in;
  in.m.sm->netlinkSubscriptionSocketIs(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
  in.send(datagram({{RTM_NEWNEIGH, 0, neighPayload(1)}, {RTM_NEWNEIGH, NLM_F_DUMP_INTR, neighPayload(2)}}));
  ASSERT_TRUE(runUntil([&] { return in.m.sm->edumpintrsCount() == 1; }, 5));
  EXPECT_EQ(in.m.seen.size(), 1u) << "messages before the interrupted one are delivered";
  EXPECT_EQ(in.m.clears, 1);
  EXPECT_EQ(in.m.sm->netlinkSubscriptionSocket(), -1);
  EXPECT_EQ(in.m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
}

TEST(NetlinkNetNsSm, StalledSynchronousDumpGivesUpAfterEagainMaxCountEmptyReads) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  Injected in;  // nobody answers the request written to the pair
  in.m.sm->netlinkSubscriptionSocketIs(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
  Glimmer::enable("Corvid", 2);
  Glimmer::Capture trace;
  in.m.sm->doRequestDump(true);
  Glimmer::enable("Corvid", -1);
  EXPECT_EQ(in.m.sm->eagainCount(), 1u);
  EXPECT_TRUE(trace.contains("recovering from too many EAGAIN errors"));
  EXPECT_EQ(in.m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
}

// Each request is a 20-byte header plus rtgenmsg (AF_UNSPEC, zero padding),
// flags NLM_F_REQUEST | NLM_F_DUMP, pid 0, the next sequence number.
TEST(NetlinkNetNsSm, DumpRequestsHaveTheTwentyByteFormatAndFollowTheGroups) {
  Brio::ActivityManager loop;
  struct Case {
    U32 groups;
    std::vector<U16> requests;  // the dump requests, in order, as each reply completes
  } const cases[] = {
      {RTMGRP_NEIGH, {RTM_GETNEIGH}},
      {allGroups, {RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.groups);
    Injected in(c.groups);
    in.m.sm->netlinkSubscriptionSocketIs(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
    in.m.sm->seqIs(41);
    in.m.sm->doRequestDump(false);
    for (U32 i = 0; i < c.requests.size(); ++i) {
      std::vector<U8> req(64);
      req.resize(std::max<ssize_t>(recv(in.peer, req.data(), req.size(), 0), 0));
      EXPECT_EQ(req, datagram({{c.requests[i], 0x0301, {0, 0, 0, 0}, -1, 41 + i}}));
      in.send(datagram({{RTM_NEWNEIGH, 0, neighPayload(U8(i))}}));
      in.send(done);
      ASSERT_TRUE(runUntil([&] { return in.m.sm->doneCount() == i + 1; }, 5));
    }
    EXPECT_EQ(in.m.seen.size(), c.requests.size()) << "data before NLMSG_DONE is delivered";
      EXPECT_EQ(in.m.sm->netlinkSubscriptionSocket(), -1) << "switched to the subscription after the last reply";
  }
}

TEST(NetlinkNetNsSm, WithoutKeepSyncedItOnlySubscribes) {
  Brio::ActivityManager loop;
  NamedNetns ns("nlk");
  CORVID_REQUIRE_NETNS(ns);
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  Recorder r(RTMGRP_LINK, false, ns.name());
  r.sm->doInitializeNetlinkSocket(false);
  EXPECT_EQ(r.sm->netlinkSubscriptionSocket(), -1) << "switched at once";
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  ASSERT_TRUE(runUntil([&] { return !r.seen.empty(); }, 5));
  EXPECT_FALSE(r.seen.count("link 1")) << "lo was never dumped";
}

TEST(NetlinkNetNsSmDeathTest, BrokenInvariantsAbortWithTheirTexts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Injected in;  // each death runs in a child of its own, from this state
  EXPECT_DEATH(
      {
        in.send(done);  // two dump replies finished in one service call
        in.send(done);
        in.m.sm->requestDumpStateIs(RequestDumpState::rdsCouldCleanup);
        in.m.sm->doServiceNetlinkFd();
      },
      "doneCount\\(\\) == \\( origDoneCount \\+ 1 \\)");
  EXPECT_DEATH(
      {
        in.m.sm->requestDumpStateIs(RequestDumpState::rdsCouldSendNeighborRequest);
        in.m.sm->doRequestDump(false);
      },
      "requestDumpState_ == rdsEnd_");
  EXPECT_DEATH(
      {
        in.send(std::vector<U8>(20000, 0));
        in.m.sm->doServiceNetlinkFd();
      },
      "len <= 16384 && \"Got truncated message from recv -- aborting\"");
  EXPECT_DEATH(
      {
        in.m.sm->clearResync();
        in.m.sm->doRunRequestDumpSm();
      },
      "false && \"Unexpectedly arrived in end state\"");
  nlmsghdr h{};
  nlmsghdr* hp = &h;
  EXPECT_DEATH(Brio::Ptr<NetlinkMessageCallback>(new NetlinkMessageCallback("base"))->callback(hp),
               "\"NetlinkMessageCallback::callback not overwritten\" && false");
}
