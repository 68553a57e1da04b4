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

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::shOutput;

namespace {

constexpr U32 allGroups = RTMGRP_LINK | RTMGRP_NEIGH | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;

// Multicast neighbours (ff02::/16 on IPv6) are made by the kernel in the
// NOARP state without any notification, so only a dump can show them: a
// follower cannot be expected to know them. Both sides leave them out.
bool multicastNeigh(std::string const& text) { return text.find(" ff02:") != std::string::npos; }

// The kernel tests' client: an RtnlMirror, read back as text in the form
// the kernel side below produces from `ip -j`, and counting finished
// resyncs (resyncInProgress falling).
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
  bool following() const { return mirror.synced(); }

  std::set<std::string> neighs() const {
    std::set<std::string> out;
    for (auto const& [k, e] : mirror.neighs()) {
      std::ostringstream text;
      text << k.first << ' ' << k.second << ' ' << (e.value.hasMac ? Brio::strep(e.value.mac) : Brio::String("-"));
      if (!multicastNeigh(text.str())) out.insert(text.str());
    }
    return out;
  }
  std::set<std::string> addrs() const {
    std::set<std::string> out;
    for (auto const& [k, e] : mirror.addrs()) out.insert(std::to_string(k.first) + ' ' + Brio::strep(k.second).str());
    return out;
  }
  std::map<int, std::string> linkNames() const {
    std::map<int, std::string> out;
    for (auto const& [i, e] : mirror.links()) out[i] = e.value.name.name().str();
    return out;
  }
};

// The neighbours the test made (10/8 on veth0).
std::size_t madeNeighs(Mirror const& m) {
  std::size_t n = 0;
  for (auto const& t : m.neighs()) n += t.find(" 10.") != std::string::npos;
  return n;
}
std::set<std::string> only10(std::set<std::string> const& in) {
  std::set<std::string> out;
  for (auto const& t : in) {
    if (t.find(" 10.") != std::string::npos) out.insert(t);
  }
  return out;
}

std::map<int, std::string> kernelLinks(NamedNetns const& ns) {
  std::map<int, std::string> out;
  for (auto const& l : nlohmann::json::parse(shOutput("ip -n " + ns.name() + " -j link show"))) {
    out[l.at("ifindex").get<int>()] = l.at("ifname").get<std::string>();
  }
  return out;
}

// The kernel's view through iproute2, in the mirror's text form. "nud all":
// the watcher hears of entries in every state, NOARP ones included.
std::set<std::string> kernelNeighs(NamedNetns const& ns) {
  std::map<std::string, int> index;
  for (auto const& [i, name] : kernelLinks(ns)) index[name] = i;
  std::set<std::string> out;
  for (auto const& n : nlohmann::json::parse(shOutput("ip -n " + ns.name() + " -j neigh show nud all"))) {
    std::string const mac = n.contains("lladdr") ? n["lladdr"].get<std::string>() : "-";
    std::string text = std::to_string(index[n.at("dev")]) + ' ' + n.at("dst").get<std::string>() + ' ' + mac;
    if (!multicastNeigh(text)) out.insert(text);
  }
  return out;
}

std::set<std::string> kernelAddrs(NamedNetns const& ns) {
  std::set<std::string> out;
  auto const j = nlohmann::json::parse(shOutput("ip -n " + ns.name() + " -j addr show"));
  for (auto const& link : j) {
    for (auto const& a : link.at("addr_info")) {
      out.insert(std::to_string(link.at("ifindex").get<int>()) + ' ' + a.at("local").get<std::string>() + '/' +
                 std::to_string(a.at("prefixlen").get<int>()));
    }
  }
  return out;
}


// Writes an `ip -batch` file of neighbour commands on veth0 and runs it.
void neighBatch(NamedNetns const& ns, char const* verb, int from, int count) {
  std::string const path = "/tmp/" + ns.name() + ".batch";
  {
    std::ofstream f(path);
    for (int i = from; i < from + count; ++i) {
      f << "neigh " << verb << " 10." << (i >> 16 & 255) << '.' << (i >> 8 & 255) << '.' << (i & 255);
      if (std::string(verb) != "del") {
        f << " lladdr 02:00:" << std::hex << (i >> 16 & 255) << ':' << (i >> 8 & 255) << ':' << (i & 255) << ":01"
          << std::dec << " nud permanent";
      }
      f << " dev veth0\n";
    }
  }
  ASSERT_EQ(CorvidTest::sh("ip -n " + ns.name() + " -batch " + path), 0);
  std::remove(path.c_str());
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

::testing::AssertionResult mirrorsKernel(Mirror const& m, NamedNetns const& ns) {
  auto const kn = kernelNeighs(ns);
  auto const mn = m.neighs();
  if (kn != mn) {
    std::ostringstream os;
    os << "neighbours differ: kernel " << kn.size() << ", mirror " << mn.size();
    for (auto const& k : kn) {
      if (!mn.count(k)) {
        os << "; first missing: " << k;
        break;
      }
    }
    for (auto const& k : mn) {
      if (!kn.count(k)) {
        os << "; first stale: " << k;
        break;
      }
    }
    return ::testing::AssertionFailure() << os.str();
  }
  bool const addrs = m.sm->netlinkGroups() & (RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
  if (addrs && kernelAddrs(ns) != m.addrs()) return ::testing::AssertionFailure() << "addresses differ";
  if (kernelLinks(ns) != m.linkNames()) return ::testing::AssertionFailure() << "links differ";
  return ::testing::AssertionSuccess();
}

// The mirror must equal the kernel once the notifications in flight have
// landed: polls for a bounded time, then reports the last difference.
::testing::AssertionResult eventuallyMirrors(Mirror const& m, NamedNetns const& ns) {
  ::testing::AssertionResult last = mirrorsKernel(m, ns);
  Brio::ActivityManager::current()->runUntil([&] { return bool(last = mirrorsKernel(m, ns)); }, 5);
  return last;
}

#define REQUIRE_NS(ns) \
  if (!(ns).ok()) GTEST_SKIP() << "needs root to make network namespaces"

// Runs the loop until `done` or a bounded time; never hangs a test.
bool runUntil(std::function<bool()> const& done, double seconds = 20) {
  return Brio::ActivityManager::current()->runUntil(done, seconds);
}

}  // namespace

TEST(NetlinkNetNsSm, DumpThenFollowMatchesTheKernelAfterEveryStep) {
  Brio::ActivityManager loop;
  NamedNetns ns("nlw");
  REQUIRE_NS(ns);
  ASSERT_TRUE(populate(ns, 2000));
  Mirror m(ns.name());
  m.sm->doInitializeNetlinkSocket(false);
  ASSERT_TRUE(runUntil([&] { return m.following(); }));
  EXPECT_EQ(m.sm->doneCount(), 3u) << "one dump each of links, addresses, neighbours";
  EXPECT_EQ(madeNeighs(m), 2000u);
  EXPECT_EQ(only10(m.neighs()), only10(kernelNeighs(ns)));

  neighBatch(ns, "add", 5000, 50);
  neighBatch(ns, "del", 2, 30);
  ASSERT_EQ(ns.ip("addr add 192.0.2.9/24 dev veth1"), 0);
  ASSERT_EQ(ns.ip("link add veth2 type veth peer name veth3"), 0);
  ASSERT_TRUE(runUntil([&] { return madeNeighs(m) == 2020 && m.linkNames().size() == 5 && m.addrs().size() >= 4; }));
  EXPECT_TRUE(eventuallyMirrors(m, ns));
  EXPECT_EQ(m.sm->resyncAttempts(), 0u);
  EXPECT_EQ(m.mirror.malformed(), 0u);
}

TEST(NetlinkNetNsSm, SynchronousDumpIsCompleteWhenTheCallReturns) {
  Brio::ActivityManager loop;
  NamedNetns ns("nls");
  REQUIRE_NS(ns);
  ASSERT_TRUE(populate(ns, 300));
  Mirror m(ns.name(), RTMGRP_NEIGH);
  m.sm->doInitializeNetlinkSocket(true);
  EXPECT_TRUE(m.following());
  EXPECT_EQ(m.sm->doneCount(), 1u) << "neighbours only: the first step asks for RTM_GETNEIGH";
  EXPECT_EQ(only10(m.neighs()), only10(kernelNeighs(ns)));

  // A time budget too short for the dump: the watcher's synchronous call
  // returns early, as specified; the mirror's synchronous start finishes it.
  Mirror slow(ns.name(), RTMGRP_NEIGH);
  slow.sm->maxProcessingTimeIs(1e-6);
  slow.mirror.start(true);
  EXPECT_TRUE(slow.following());
  EXPECT_EQ(only10(slow.neighs()), only10(kernelNeighs(ns)));
}

// Floods of neighbour changes against a receive buffer forced tiny: the
// subscription socket overflows, ENOBUFS triggers a resync 3 s later (manual
// time), and after the sweep the mirror equals the kernel again, with the
// entries deleted during the loss swept. Several rounds in one watcher.
TEST(NetlinkNetNsSm, ResyncAfterEnobufsRestoresTheKernelStateEveryRound) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  NamedNetns ns("nlb");
  REQUIRE_NS(ns);
  ASSERT_TRUE(populate(ns, 1500));
  setenv("NL_RCVBUFSIZE", "4096", 1);  // read whenever sockets (re)open
  Mirror m(ns.name(), RTMGRP_LINK | RTMGRP_NEIGH);
  m.sm->doInitializeNetlinkSocket(false);
  ASSERT_TRUE(runUntil([&] { return m.following(); }));
  ASSERT_EQ(madeNeighs(m), 1500u);

  Glimmer::enable("Corvid", 2);
  Glimmer::Capture trace;
  int next = 10000;
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    U32 const swept = m.mirror.swept();
    // Nobody reads while the kernel sends: deletions and additions pile up.
    neighBatch(ns, "del", 2 + (round - 1) * 300, 300);
    neighBatch(ns, "add", next, 1500);
    next += 1500;
    ASSERT_TRUE(runUntil([&] { return m.sm->enobufsCount() == static_cast<U32>(round); }));
    EXPECT_EQ(m.sm->netlinkFd()->descriptor(), -1) << "the reading socket closes at once";
    EXPECT_EQ(m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
    loop.advanceTime(2.9);
    EXPECT_EQ(m.sm->resyncAttempts(), static_cast<U32>(round - 1)) << "not before 3 s";
    loop.advanceTime(0.1);
    EXPECT_EQ(m.sm->resyncAttempts(), static_cast<U32>(round));
    ASSERT_TRUE(runUntil([&] { return m.following(); }));
    EXPECT_EQ(m.cleanups, round);
    EXPECT_GE(m.mirror.swept() - swept, 300u) << "entries deleted during the loss are swept";
    EXPECT_TRUE(eventuallyMirrors(m, ns));
  }
  unsetenv("NL_RCVBUFSIZE");
  EXPECT_TRUE(trace.contains("recovering from ENOBUFS"));
  EXPECT_TRUE(trace.contains("starting resync, resyncAttempts() 3"));
  Glimmer::enable("Corvid", -1);
}

// ENOBUFS while the dump sequencer is past rdsStart (the link dump is in,
// the address request outstanding): the resync must still start a clean
// dump. The loss is made real: the reading socket is swapped for a
// subscribed socket the test overflowed.
TEST(NetlinkNetNsSm, LossInTheMiddleOfADumpStillEndsInACleanResync) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  NamedNetns ns("nlm");
  REQUIRE_NS(ns);
  ASSERT_TRUE(populate(ns, 100));
  Mirror m(ns.name());
  m.sm->doInitializeNetlinkSocket(false);
  ASSERT_EQ(m.sm->requestDumpState(), RequestDumpState::rdsCouldSendIpRequest);

  netlinkHandle overflowing;
  createNetlinkSocket(&overflowing, RTMGRP_NEIGH, ns.c_str(), NETLINK_ROUTE, true, 1);
  neighBatch(ns, "add", 20000, 400);
  m.sm->netlinkFdIs(overflowing.fd);
  ASSERT_TRUE(runUntil([&] { return m.sm->enobufsCount() == 1; }));
  EXPECT_NE(m.sm->requestDumpState(), RequestDumpState::rdsEnd);
  loop.advanceTime(3.0);
  ASSERT_TRUE(runUntil([&] { return m.following(); }));
  EXPECT_TRUE(eventuallyMirrors(m, ns));
}

TEST(NetlinkNetNsSm, DeletedNamespaceIsCountedOnceAndRetriedEveryThreeSeconds) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  NamedNetns ns("nld");
  REQUIRE_NS(ns);
  Mirror m(ns.name(), RTMGRP_LINK);
  m.sm->doInitializeNetlinkSocket(true);
  ASSERT_TRUE(m.following());
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
  EXPECT_EQ(m.linkNames(), kernelLinks(ns));
}

TEST(NetlinkNetNsSm, RecvBufferSizeComesFromTheEnvironmentOrTheAttribute) {
  struct Case {
    char const* env;  // null: unset
    int expected;     // SO_RCVBUF as the kernel reports it (doubled)
  } const cases[] = {
      {nullptr, 2 * 1048576}, {"abc", 2 * 1048576}, {"12x", 2 * 1048576}, {"", 2 * 1048576}, {"65536", 2 * 65536},
  };
  if (geteuid() != 0) GTEST_SKIP() << "SO_RCVBUFFORCE needs CAP_NET_ADMIN";
  auto sm = netlinkNetNsSmFactory(NamespaceName(), RTMGRP_LINK, NETLINK_ROUTE, false, nullptr, nullptr, nullptr);
  for (auto const& c : cases) {
    SCOPED_TRACE(c.env ? c.env : "(unset)");
    if (c.env) {
      setenv("NL_RCVBUFSIZE", c.env, 1);
    } else {
      unsetenv("NL_RCVBUFSIZE");
    }
    int sd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    sm->adjustRecvBufSize(sd);
    int size = 0;
    socklen_t len = sizeof size;
    getsockopt(sd, SOL_SOCKET, SO_RCVBUF, &size, &len);
    EXPECT_EQ(size, c.expected);
    close(sd);
  }
  unsetenv("NL_RCVBUFSIZE");
}

// ---- injected datagrams -------------------------------------------------------

namespace {

// A client that records what the watcher hands it, on a watcher reading
// one end of a datagram socket pair the test writes to.
struct Recorder {
  std::set<std::string> neighs;
  int clears = 0, malformed = 0;
  Brio::Ptr<NetlinkNetNsSm> sm;

  explicit Recorder(U32 groups) {
    struct OnMessage : NetlinkMessageCallback {
      explicit OnMessage(Recorder* r) : NetlinkMessageCallback("recorder"), r(r) {}
      void callback(nlmsghdr* const& msg) override {
        RtnlMessage const m = decodeRtnl(msg);
        if (m.kind == RtnlMessage::Kind::malformed) ++r->malformed;
        if (m.kind == RtnlMessage::Kind::neigh) r->neighs.insert(std::to_string(m.neigh.ifIndex) + ' ' + Brio::strep(m.neigh.addr).str());
      }
      Recorder* r;
    };
    struct OnCleanup : CleanupCallback {
      OnCleanup() : CleanupCallback("recorder") {}
      void callback() override {}
    };
    struct OnClear : ClearResyncStateCallback {
      explicit OnClear(Recorder* r) : ClearResyncStateCallback("recorder"), r(r) {}
      void callback() override { ++r->clears; }
      Recorder* r;
    };
    sm = netlinkNetNsSmFactory(NamespaceName("corvid-unused"), groups, NETLINK_ROUTE, true, new OnMessage(this),
                               new OnCleanup(), new OnClear(this));
  }
  ~Recorder() { sm->handleDestruction(); }
  bool following() const {
    return sm->requestDumpState() == RequestDumpState::rdsEnd && sm->netlinkSubscriptionSocket() == -1;
  }
};

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

// Builds a datagram of messages; each is {type, flags, payload bytes}, with
// the length taken from the payload unless `len` overrides it.
struct Msg {
  U16 type;
  U16 flags = 0;
  std::vector<U8> payload = {};
  int len = -1;
};
std::vector<U8> datagram(std::initializer_list<Msg> msgs) {
  std::vector<U8> out;
  for (auto const& m : msgs) {
    nlmsghdr h{};
    h.nlmsg_len = m.len >= 0 ? static_cast<U32>(m.len) : static_cast<U32>(NLMSG_HDRLEN + m.payload.size());
    h.nlmsg_type = m.type;
    h.nlmsg_flags = m.flags;
    auto const* p = reinterpret_cast<U8 const*>(&h);
    out.insert(out.end(), p, p + sizeof h);
    out.insert(out.end(), m.payload.begin(), m.payload.end());
    out.resize(NLMSG_ALIGN(out.size()));
  }
  return out;
}

// An RTM_NEWNEIGH payload for 192.0.2.x on ifindex 7, optionally with its
// destination attribute's length field replaced.
std::vector<U8> neighPayload(U8 x, int dstLen = -1) {
  std::vector<U8> p(sizeof(ndmsg), 0);
  auto* nd = reinterpret_cast<ndmsg*>(p.data());
  nd->ndm_family = AF_INET;
  nd->ndm_ifindex = 7;
  nd->ndm_state = NUD_PERMANENT;
  U16 const rtaLen = dstLen >= 0 ? static_cast<U16>(dstLen) : RTA_LENGTH(4);
  U16 const rtaType = NDA_DST;
  p.insert(p.end(), {U8(rtaLen), U8(rtaLen >> 8), U8(rtaType), U8(rtaType >> 8), 192, 0, 2, x});
  return p;
}

}  // namespace

TEST(NetlinkNetNsSm, HostileDatagramsEndTheWalkAndTheWatcherKeepsWorking) {
  Brio::ActivityManager loop;
  struct Case {
    char const* what;
    std::vector<U8> bytes;
    int malformedWalks;     // datagrams whose walk stopped early
    int malformedDecodes;   // messages the decoder refused
    std::size_t delivered;  // neighbours that reached the mirror
  } const cases[] = {
      {"message length zero", datagram({{RTM_NEWNEIGH, 0, neighPayload(1), 0}}), 1, 0, 0},
      {"length past the datagram", datagram({{RTM_NEWNEIGH, 0, neighPayload(1), 4000}}), 1, 0, 0},
      {"length below the header", datagram({{RTM_NEWNEIGH, 0, {}, 8}}), 1, 0, 0},
      {"good, then zero length", datagram({{RTM_NEWNEIGH, 0, neighPayload(1)}, {RTM_NEWNEIGH, 0, {}, 0}}), 1, 0, 1},
      {"attribute past its message", datagram({{RTM_NEWNEIGH, 0, neighPayload(1, 200)}}), 0, 1, 0},
      {"attribute length below its header", datagram({{RTM_NEWNEIGH, 0, neighPayload(1, 2)}}), 0, 1, 0},
      {"fixed header cut short", datagram({{RTM_NEWNEIGH, 0, {1, 2, 3}}}), 0, 1, 0},
      {"noop and error pass", datagram({{NLMSG_NOOP}, {NLMSG_ERROR, 0, {0xfe, 0xff, 0xff, 0xff}}, {NLMSG_ERROR}}), 0, 0, 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.what);
    Injected in;
    in.send(c.bytes);
    in.send(datagram({{RTM_NEWNEIGH, 0, neighPayload(99)}}));  // the watcher must still read this
    ASSERT_TRUE(runUntil([&] { return in.m.neighs.count("7 192.0.2.99"); }, 5));
    EXPECT_EQ(in.m.sm->malformedCount(), static_cast<U32>(c.malformedWalks));
    EXPECT_EQ(in.m.malformed, c.malformedDecodes);
    EXPECT_EQ(in.m.neighs.size(), c.delivered + 1);
  }
}

TEST(NetlinkNetNsSm, DumpIntrStartsAResyncAndDropsTheSubscription) {
  Brio::ActivityManager loop(Brio::ActivityManager::TimeSource::manual);
  Injected in;
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
  close(sv[1]);
  in.m.sm->netlinkSubscriptionSocketIs(sv[0]);
  in.send(datagram({{RTM_NEWNEIGH, 0, neighPayload(1)}, {RTM_NEWNEIGH, NLM_F_DUMP_INTR, neighPayload(2)}}));
  ASSERT_TRUE(runUntil([&] { return in.m.sm->edumpintrsCount() == 1; }, 5));
  EXPECT_EQ(in.m.neighs.size(), 1u) << "messages before the interrupted one are delivered";
  EXPECT_EQ(in.m.clears, 1);
  EXPECT_EQ(in.m.sm->netlinkSubscriptionSocket(), -1);
  EXPECT_EQ(in.m.sm->netlinkFd()->descriptor(), -1);
  EXPECT_EQ(in.m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
}

TEST(NetlinkNetNsSm, DumpRequestsHaveTheTwentyByteFormatAndFollowTheGroups) {
  Brio::ActivityManager loop;
  struct Case {
    U32 groups;
    std::vector<U16> requests;  // the dump requests, in order, as each reply completes
  } const cases[] = {
      {RTMGRP_NEIGH, {RTM_GETNEIGH}},
      {RTMGRP_LINK | RTMGRP_NEIGH, {RTM_GETLINK, RTM_GETNEIGH}},
      {RTMGRP_IPV6_IFADDR, {RTM_GETADDR}},
      {allGroups, {RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.groups);
    Injected in(c.groups);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
    in.m.sm->netlinkFdIs(sv[0]);
    in.m.sm->netlinkSubscriptionSocketIs(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
    in.m.sm->seqIs(41);
    in.m.sm->doRequestDump(false);
    for (std::size_t i = 0; i < c.requests.size(); ++i) {
      U8 req[64];
      ASSERT_EQ(recv(sv[1], req, sizeof req, 0), 20);
      nlmsghdr h;
      std::memcpy(&h, req, sizeof h);
      EXPECT_EQ(h.nlmsg_len, 20u);
      EXPECT_EQ(h.nlmsg_type, c.requests[i]);
      EXPECT_EQ(h.nlmsg_flags, 0x0301);
      EXPECT_EQ(h.nlmsg_seq, 41 + i);
      EXPECT_EQ(h.nlmsg_pid, 0u);
      EXPECT_EQ(req[16] | req[17] | req[18] | req[19], 0) << "AF_UNSPEC and zero padding";
      auto const done = datagram({{RTM_NEWNEIGH, 0, neighPayload(U8(i))}, {NLMSG_DONE, 0, {0, 0, 0, 0}}});
      ::send(sv[1], done.data(), done.size(), 0);
      ASSERT_TRUE(runUntil([&] { return in.m.sm->doneCount() == i + 1; }, 5));
    }
    EXPECT_EQ(in.m.neighs.size(), c.requests.size()) << "data before NLMSG_DONE is delivered";
    EXPECT_TRUE(in.m.following()) << "switched to the subscription socket after the last reply";
    close(sv[1]);
  }
}

TEST(NetlinkNetNsSmDeathTest, BrokenInvariantsAbortWithTheirTexts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Injected in;
        in.send(datagram({{NLMSG_DONE, 0, {0, 0, 0, 0}}, {NLMSG_DONE, 0, {0, 0, 0, 0}}}));
        in.send(datagram({{NLMSG_DONE, 0, {0, 0, 0, 0}}}));
        in.m.sm->requestDumpStateIs(RequestDumpState::rdsCouldCleanup);
        in.m.sm->doServiceNetlinkFd();
      },
      "doneCount\\(\\) == \\( origDoneCount \\+ 1 \\)");
  EXPECT_DEATH(
      {
        Injected in;
        in.m.sm->requestDumpStateIs(RequestDumpState::rdsCouldSendNeighborRequest);
        in.m.sm->doRequestDump(false);
      },
      "requestDumpState_ == rdsEnd_");
  EXPECT_DEATH(
      {
        Injected in;
        in.send(std::vector<U8>(20000, 0));
        in.m.sm->doServiceNetlinkFd();
      },
      "len <= 16384 && \"Got truncated message from recv -- aborting\"");
  EXPECT_DEATH(
      {
        Brio::Ptr<NetlinkMessageCallback> base(new NetlinkMessageCallback("base"));
        nlmsghdr h{};
        nlmsghdr* p = &h;
        base->callback(p);
      },
      "\"NetlinkMessageCallback::callback not overwritten\" && false");
  EXPECT_DEATH(
      {
        Injected in;
        in.m.sm->clearResync();
        in.m.sm->doRunRequestDumpSm();
      },
      "false && \"Unexpectedly arrived in end state\"");
}

TEST(NetlinkNetNsSm, EnumerationsReadBackTheirNames) {
  for (auto s : {RequestDumpState::rdsStart, RequestDumpState::rdsCouldSendIpRequest,
                 RequestDumpState::rdsCouldSendNeighborRequest, RequestDumpState::rdsCouldCleanup,
                 RequestDumpState::rdsEnd}) {
    EXPECT_EQ(Brio::strepToValue<RequestDumpState>(valueToStrep(s)), s);
  }
  for (auto s : {ServiceNetlinkFdState::nlSuccess, ServiceNetlinkFdState::nlFail, ServiceNetlinkFdState::nlRetry}) {
    EXPECT_EQ(Brio::strepToValue<ServiceNetlinkFdState>(valueToStrep(s)), s);
  }
  EXPECT_THROW(Brio::strepToValue<RequestDumpState>("rdsNever"), Brio::RangeException);
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
  EXPECT_EQ(in.m.sm->netlinkFd()->descriptor(), -1);
  EXPECT_EQ(in.m.sm->resyncHelperSm()->resyncClock()->timeMin(), loop.now() + 3.0);
}

TEST(NetlinkNetNsSm, WithoutKeepSyncedItOnlySubscribes) {
  Brio::ActivityManager loop;
  NamedNetns ns("nlk");
  REQUIRE_NS(ns);
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  std::set<int> seen;
  struct Seen : NetlinkMessageCallback {
    explicit Seen(std::set<int>* s) : NetlinkMessageCallback("seen"), s(s) {}
    void callback(nlmsghdr* const& msg) override {
      auto const m = decodeRtnl(msg);
      if (m.kind == RtnlMessage::Kind::link) s->insert(m.link.ifIndex);
    }
    std::set<int>* s;
  };
  auto sm = netlinkNetNsSmFactory(NamespaceName(Brio::String(ns.name())), RTMGRP_LINK, NETLINK_ROUTE, false,
                                  new Seen(&seen), nullptr, nullptr);
  sm->doInitializeNetlinkSocket(false);
  EXPECT_FALSE(sm->resyncHelperSm());
  EXPECT_EQ(sm->netlinkSubscriptionSocket(), -1) << "switched at once";
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  ASSERT_TRUE(runUntil([&] { return !seen.empty(); }, 5));
  EXPECT_EQ(sm->doneCount(), 0u) << "no dump";
  EXPECT_FALSE(seen.count(1)) << "lo was never dumped";
  sm->handleDestruction();
}
