// TCP client and server reactors against the kernel, in namespaces the
// tests make: options read back with getsockopt, MD5 and GTSM across a veth
// pair between two namespaces, retry/backoff/timeout on manual time.
#include <Brio/ActivityManager.h>
#include <Corvid/TcpClientServer.h>
#include <Glimmer/Glimmer.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/NetnsScope.h"
#include "support/ValueCases.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::NetnsScope;
using CorvidTest::sh;
using Status = TcpClientStatus::ConnectionStatus;
using Opt = TcpSocketOptions;

namespace {

int intOption(int sd, int level, int name) {
  int v = -12345;
  socklen_t len = sizeof v;
  if (getsockopt(sd, level, name, &v, &len) != 0) return -99999;
  return v;
}

U16 boundPort(int sd) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  getsockname(sd, reinterpret_cast<sockaddr*>(&ss), &len);
  return ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                                        : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

// Each kernel test runs in a namespace of its own, where nothing else
// listens: one port serves them all.
constexpr U16 port = 4179;

// A plain socket connected to the port on loopback.
int connectToPort() {
  int c = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(c, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  return c;
}

IpGenAddr addr(char const* text) { return IpGenAddr(Brio::String(text)); }
IpGenAddrWithMask prefix(char const* text) { return IpGenAddrWithMask(Brio::String(text)); }

// --- value types ---------------------------------------------------------------------

// The options' short form names only the first four flags, in their order;
// their value text has every flag. The defaults show in the dump (timeout,
// namespace) and in the listener's PMTU option.
TEST(TcpConfig, OptionTextsAndDump) {
  EXPECT_EQ(tcpOptionsToStrep(Opt(0)).str(), "<>");
  EXPECT_EQ(tcpOptionsToStrep(Opt(2 | 4 | 16 | 32 | 64)).str(), "<optionTxDs,optionRxMinTtl>");
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(Opt(1 | 4 | 16 | 64)),
            "Value('Corvid::TcpSocketOptions', ** {'optionTxTtl': True, 'optionTxDs': False, "
            "'optionRxMinTtl': True, 'optionMd5Auth': False, 'optionSockMaxSegSize': True, "
            "'optionPathMtuDiscovery': False, 'optionDontRoute': True})");
  auto config = tcpServerConfigFactory(addr("10.1.2.3"), Port(179));
  config->retryIntervalIs(3);
  config->optionsIs(Opt(127));
  config->txDsIs(IpDscp(10));
  config->md5AuthIs(prefix("10.0.0.0/24"), "k1");
  std::ostringstream plain;
  config->dumpState(plain);
  EXPECT_EQ(plain.str(),
            "networkNamespace default listenIpAddr 10.1.2.3 listenPort 179\n"
            "retryInterval 3; timeout 0.000000; options <optionTxTtl,optionTxDs,optionRxMinTtl,optionMd5Auth>; "
            "txDs 10; txTtl 0; rxMinTtl 0\n"
            "md5Auth #1\nmd5Auth( 10.0.0.0/24 ) : k1\n");
  config->md5AuthDel(prefix("10.0.0.0/24"));
  EXPECT_EQ(config->md5Auth(prefix("10.0.0.0/24")).str(), "");
}

// An accepted connection's text reads back without its descriptor. The
// queue of accepted connections is driven by the kernel tests below.
TEST(TcpServerStatus, ConnSocketTextAndStatusDump) {
  TcpConnSocket const a(tcpFileDescriptorFactory(-1, false), addr("10.0.0.1"), Port(4000), addr("10.0.0.2"), Port(179),
                        7);
  Brio::String const text = valueToStrep(a);
  EXPECT_EQ(text.str(),
            "Value('Corvid::TcpConnSocket', ** {'fileDescriptor': -1, 'srcIpAddr': 10.0.0.1, 'srcPort': 4000, "
            "'dstIpAddr': 10.0.0.2, 'dstPort': 179, 'ifIndex': 7})");
  TcpConnSocket const back = Brio::strepToValue<TcpConnSocket>(text);
  EXPECT_FALSE(back);  // no descriptor is taken over from text, the fields are
  EXPECT_EQ(valueToStrep(back).str(), text.str());
  EXPECT_NE(back, a);

  auto status = tcpServerStatusFactory();
  status->connSocketCountInc();
  status->connSocketCountInc();
  std::ostringstream os;
  status->dumpState(os);
  EXPECT_EQ(os.str(),
            "TcpServerStatus\nlistening no; reason ; startTimes 0; timedOutTimes 0; connSocketCount 2; "
            "eagainEintrTimes 0\n");
}

TEST(TcpFreeFunctionsDeathTest, InvariantTexts) {
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_DEATH(setSockMd5AuthOption(sd, prefix("10.0.0.1/32"), Brio::String(std::string(80, 'k'))),
               "key.bytes\\(\\) < 80");
  EXPECT_DEATH(setSockMd5AuthOption(sd, prefix("10.0.0.1/32"), ""), "md5AuthOptionKey");
  sockaddr_storage ss;
  EXPECT_DEATH(constructSockAddr(reinterpret_cast<sockaddr*>(&ss), IpGenAddr()), "Unexpected af");
  close(sd);
}

// Every value reads back from its text; a word cut short or differing in
// case does not.
TEST(TcpEnums, TextFormsRoundTripAndRefuseOtherWords) {
  using SdType = TcpSmBase::SdType;
  std::string names;
  for (Status st : {Status::idle_, Status::failed_, Status::connecting_, Status::connected_, Status::timedout_}) {
    names += CorvidTest::expectStrepRoundTrip(st) + " ";
  }
  for (SdType t : {SdType::sdListening_, SdType::sdAccepted_, SdType::sdConnecting_, SdType::sdEstablished_}) {
    names += CorvidTest::expectStrepRoundTrip(t) + " ";
  }
  EXPECT_EQ(names, "idle failed connecting connected timedout sdListening sdAccepted sdConnecting sdEstablished ");
  EXPECT_THROW(Brio::strepToValue<Status>(Brio::String("connect")), Brio::RangeException);
  EXPECT_THROW(Brio::strepToValue<SdType>(Brio::String("sdestablished")), Brio::RangeException);
}

// --- against the kernel ------------------------------------------------------------------

// Each test in a namespace of its own, on manual time: only advanceTime()
// fires the retry and timeout timers. Every socket a test's clients and
// servers opened must be closed once they are gone.
class TcpKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    descriptors_ = CorvidTest::openDescriptors();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      EXPECT_EQ(CorvidTest::openDescriptors(), descriptors_) << "descriptors leaked";
    }
  }
  Brio::Ptr<TcpServerSm> server(Brio::Ptr<TcpServerConfig const> const& conf,
                                Brio::Ptr<TcpServerStatus> const& status = tcpServerStatusFactory()) {
    return tcpServerSmFactory(regs_, wheel_, conf, status);
  }
  Brio::Ptr<TcpServerSm> loopbackServer(U16 listenPort = port) {
    return server(tcpServerConfigFactory(addr("127.0.0.1"), Port(listenPort)));
  }
  Brio::Ptr<TcpClientSm> client(Brio::Ptr<TcpClientConfig const> const& conf, Brio::Ptr<TcpClientStatus> const& status,
                                U32 id = 1) {
    return tcpClientSmFactory(regs_, wheel_, id, conf, status);
  }
  // Runs the loop until the client and the server both hold the connection.
  bool connected(Brio::Ptr<TcpClientStatus> const& c, Brio::Ptr<TcpServerSm> const& s, F64 wait = 5) {
    return am_.runUntil(
        [&] { return c->connectionStatus() == Status::connected_ && s->tcpServerStatus()->connSockets(); }, wait);
  }

  NetnsScope ns_;
  int descriptors_ = 0;
  Brio::ActivityManager am_{Brio::ActivityManager::TimeSource::manual};
  Brio::Ptr<Quay::TimerWheel> wheel_ = Quay::TimerWheel::timerWheelFactory();
  Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> regs_ = tcpFileDescriptorEventRegistrationFactoryBrioc();
};

class TcpOptionsTest : public TcpKernelTest, public ::testing::WithParamInterface<AddressFamily> {
 protected:
  bool v6() const { return GetParam() == AddressFamily::ipv6; }
  IpGenAddr loopback() const { return addr(v6() ? "::1" : "127.0.0.1"); }
  int ipLevel() const { return v6() ? IPPROTO_IPV6 : IPPROTO_IP; }
  int ttlName() const { return v6() ? IPV6_UNICAST_HOPS : IP_TTL; }
  int tosName() const { return v6() ? IPV6_TCLASS : IP_TOS; }
  int minTtlName() const { return v6() ? 73 : 21; }
  int pmtuName() const { return v6() ? IPV6_MTU_DISCOVER : IP_MTU_DISCOVER; }
  // IPv6 binds to the interface where IPv4 sets SO_DONTROUTE.
  int dontRoute(int sd) const {
    return v6() ? int(ntohl(intOption(sd, IPPROTO_IPV6, IPV6_UNICAST_IF))) : intOption(sd, SOL_SOCKET, SO_DONTROUTE);
  }
};

TEST_P(TcpOptionsTest, EveryOptionReadsBackOnEachKindOfSocket) {
  auto everyOption = [](TcpConfigBase* conf, U8 ttl, U8 dscp, U8 minTtl, U16 mss) {
    conf->optionsIs(Opt(1 | 2 | 4 | 16 | 32 | 64));
    conf->txTtlIs(IpTtl(ttl));
    conf->txDsIs(IpDscp(dscp));
    conf->rxMinTtlIs(IpTtl(minTtl));
    conf->sockMaxSegSizeIs(mss);
    conf->dstIntfIfIndexIs(1);
  };
  auto sconf = tcpServerConfigFactory(loopback(), Port(port));
  everyOption(sconf.ptr(), 33, 46, 7, 1200);  // the kernel keeps its own ECN bits: 46 reads back as 44
  auto sstatus = tcpServerStatusFactory();
  auto srv = server(sconf, sstatus);
  ASSERT_TRUE(srv->startListener()) << sstatus->reason().view();
  int const ls = srv->fd()->fileDescriptor()->descriptor();

  auto cconf = tcpClientConfigFactory(loopback(), Port(port));
  everyOption(cconf.ptr(), 44, 32, 9, 1100);
  cconf->pathMtuDiscoveryIs(false);
  auto cstatus = tcpClientStatusFactory();
  auto cli = client(cconf, cstatus);
  ASSERT_TRUE(cli->startConnection()) << cstatus->reason().view();
  ASSERT_TRUE(connected(cstatus, srv));
  int const es = cli->getClientSocket();
  TcpConnSocket accepted = sstatus->getConnSocket();
  ASSERT_TRUE(accepted);
  int const as = accepted.descriptor();
  EXPECT_EQ(accepted.srcIpAddr(), loopback());
  EXPECT_EQ(accepted.srcPort().value(), port);
  EXPECT_EQ(accepted.dstPort().value(), boundPort(es));

  // Each socket's read-back of every option; -1: not checked on it.
  struct Option {
    char const* name;
    int level, option;
  } const options[] = {{"ttl", ipLevel(), ttlName()},   {"tos", ipLevel(), tosName()},
                       {"minttl", ipLevel(), minTtlName()}, {"pmtu", ipLevel(), pmtuName()},
                       {"mss", IPPROTO_TCP, TCP_MAXSEG}};
  struct Row {
    char const* what;
    int sd;
    int expected[5];
  } const rows[] = {
      {"listening", ls, {33, 44, 7, 2, 1200}},
      {"accepted", as, {33, 44, 7, -1, -1}},
      {"established", es, {44, 32, 9, 0, -1}},
  };
  for (auto const& r : rows) {
    for (int i = 0; i < 5; ++i) {
      if (r.expected[i] < 0) continue;
      int const got = intOption(r.sd, options[i].level, options[i].option);
      EXPECT_EQ(got, r.expected[i]) << r.what << " " << options[i].name;
    }
  }
  EXPECT_EQ(dontRoute(es), 1);

  // Clearing options on the live client turns them back off on its socket.
  cconf->optionsIs(Opt(2 | 4));
  EXPECT_EQ(intOption(es, ipLevel(), ttlName()), 64);
  EXPECT_EQ(intOption(es, ipLevel(), minTtlName()), 9);
  EXPECT_EQ(dontRoute(es), 0);

  // Cleared on the server, they reach its live listening socket; sockets
  // already accepted keep what they got, deliberately: their options are
  // only ever set. The next accepted socket has the kernel's defaults.
  sconf->optionsIs(Opt(0));
  EXPECT_EQ(srv->fd()->fileDescriptor()->descriptor(), ls);  // no key involved: the live socket is changed
  EXPECT_EQ(intOption(ls, ipLevel(), ttlName()), 64);
  EXPECT_EQ(intOption(as, ipLevel(), ttlName()), 33);
  cli->stopConnection();
  cli->startConnection();
  ASSERT_TRUE(connected(cstatus, srv));
  EXPECT_EQ(intOption(sstatus->getConnSocket().descriptor(), ipLevel(), ttlName()), 64);
}

// On the wildcard address the listener follows the flag (binding a specific
// IPv6 address makes the kernel set IPV6_V6ONLY by itself); IPv4 listeners
// have no such option.
TEST_P(TcpOptionsTest, V6OnlyOnlyOnIpv6ListenersAndFollowsTheFlag) {
  for (bool v6Only : {false, true}) {
    auto srv = server(tcpServerConfigFactory(addr(v6() ? "::" : "0.0.0.0"), Port(port)));
    srv->v6OnlyIs(v6Only);
    ASSERT_TRUE(srv->startListener());
    int const ls = srv->fd()->fileDescriptor()->descriptor();
    EXPECT_EQ(intOption(ls, IPPROTO_IPV6, IPV6_V6ONLY), v6() ? int(v6Only) : -99999) << v6Only;
  }
}

INSTANTIATE_TEST_SUITE_P(Families, TcpOptionsTest, ::testing::Values(AddressFamily::ipv4, AddressFamily::ipv6),
                         [](auto const& info) { return std::string(valueToStrep(info.param).str()); });

// --- retry, backoff and timeout ----------------------------------------------------------------

// The retry intervals refused attempts go through; with a timeout, it
// counts from the first attempt, retries do not move it, and once it fires
// nothing is tried again.
TEST_F(TcpKernelTest, RefusedConnectsBackOffRestartAndTimeOut) {
  struct Case {
    U32 retryInterval, backoff;
    F64 timeout;
    std::vector<U32> intervals;
  } const cases[] = {
      {1, 0, 0, {1, 1, 1, 1}},
      {2, 3, 0, {2, 4, 8, 2, 4, 8, 2}},
      {2, 0, 5, {2, 2}},  // the third attempt, at 4, is the last
  };
  for (auto const& c : cases) {
    SCOPED_TRACE("retryInterval " + std::to_string(c.retryInterval) + " backoff " + std::to_string(c.backoff) +
                 " timeout " + std::to_string(c.timeout));
    auto config = tcpClientConfigFactory(addr("127.0.0.1"), Port(port));
    config->retryIntervalIs(c.retryInterval);
    config->exponentialBackoffRetriesIs(c.backoff);
    config->timeoutIs(c.timeout);
    auto status = tcpClientStatusFactory();
    auto cli = client(config, status, 7);
    auto refused = [&] { return am_.runUntil([&] { return status->connectionStatus() == Status::failed_; }, 5); };
    F64 const start = am_.now();
    cli->startConnection();
    std::vector<U32> seen;
    for (std::size_t i = 0; i < c.intervals.size(); ++i) {
      ASSERT_TRUE(refused()) << "attempt " << i;
      EXPECT_EQ(status->reason().str(), "Connect (Connection refused)");
      EXPECT_DOUBLE_EQ(cli->timeoutTimerExpireTime(), c.timeout ? start + c.timeout : Brio::never);
      seen.push_back(status->retryTimerInterval());
      // Nothing happens a millisecond before the timer, the attempt at it.
      U32 const attempts = status->connectionAttemptCount();
      am_.advanceTime(status->retryTimerInterval() - 0.001);
      EXPECT_EQ(status->connectionAttemptCount(), attempts);
      am_.advanceTime(0.001);
      EXPECT_EQ(status->connectionAttemptCount(), attempts + 1);
    }
    EXPECT_EQ(seen, c.intervals);
    if (c.timeout == 0) continue;
    ASSERT_TRUE(refused());
    am_.advanceTime(start + c.timeout - am_.now());
    EXPECT_EQ(status->connectionStatus(), Status::timedout_);
    U32 const attempts = status->connectionAttemptCount();
    am_.advanceTime(100);
    EXPECT_EQ(status->connectionAttemptCount(), attempts);
  }
}

TEST_F(TcpKernelTest, ConnectingUsesTheKernelTimeoutAsRetryInterval) {
  // A neighbour that never answers keeps the connect in progress.
  ASSERT_TRUE(ns_.vethPair("d0", "d1"));
  ASSERT_EQ(sh("ip addr add 10.9.9.1/24 dev d0"), 0);
  auto status = tcpClientStatusFactory();
  auto cli = client(tcpClientConfigFactory(addr("10.9.9.2"), Port(179)), status);
  ASSERT_TRUE(cli->startConnection());
  EXPECT_EQ(status->connectionStatus(), Status::connecting_);
  EXPECT_EQ(status->retryTimerInterval(), 20u);
  int const first = cli->fd()->fileDescriptor()->descriptor();
  am_.advanceTime(20);  // the retry timer is the connect timeout: a fresh attempt
  EXPECT_EQ(status->connectionAttemptCount(), 2u);
  ASSERT_TRUE(cli->fd());
  EXPECT_EQ(fcntl(first, F_GETFD) >= 0, cli->fd()->fileDescriptor()->descriptor() == first);
  cli->stopConnection();
  EXPECT_EQ(status->connectionStatus(), Status::idle_);
  EXPECT_FALSE(cli->fd());
}

TEST_F(TcpKernelTest, ServerRestartsDeferredOnMd5ChangeAndFailedOptions) {
  auto sconf = tcpServerConfigFactory(addr("127.0.0.1"), Port(port));
  auto sstatus = tcpServerStatusFactory();
  auto srv = server(sconf, sstatus);
  EXPECT_EQ(sstatus->reason().str(), "Not started");
  ASSERT_TRUE(srv->startListener());
  sconf->md5AuthIs(prefix("127.0.0.1/32"), "key");
  // Not inside the handler: the restart waits for the next turn.
  EXPECT_FALSE(sstatus->listening());
  EXPECT_DOUBLE_EQ(srv->retryTimerExpireTime(), am_.now());
  am_.runOnce(0);
  am_.runOnce(0);
  EXPECT_TRUE(sstatus->listening());
  EXPECT_EQ(sstatus->serverStartTimes(), 2u);
  sconf->md5AuthIs(prefix("127.0.0.1/32"), "key");  // the same key again: nothing to restart for
  EXPECT_TRUE(sstatus->listening());

  // A failed option on an accepted socket drops it and restarts the listener.
  srv->failApplySocketOptionsInTestIs(true);
  int c = connectToPort();
  ASSERT_TRUE(am_.runUntil([&] { return !sstatus->listening(); }, 5));
  EXPECT_EQ(sstatus->reason().view().substr(0, 12), "Setsockopt (");
  EXPECT_EQ(sstatus->connSocketCount(), 0u);
  am_.advanceTime(0);
  ASSERT_TRUE(am_.runUntil([&] { return sstatus->listening(); }, 5));
  close(c);
}

TEST_F(TcpKernelTest, ServerErrorsGiveTheirReasons) {
  auto zero = loopbackServer(0);
  EXPECT_FALSE(zero->startListener());
  EXPECT_EQ(zero->tcpServerStatus()->reason().str(), "Listening port is 0");
  EXPECT_EQ(zero->retryTimerExpireTime(), Brio::never);

  auto first = loopbackServer();
  ASSERT_TRUE(first->startListener());
  auto conf = tcpServerConfigFactory(addr("127.0.0.1"), Port(port));
  conf->retryIntervalIs(3);
  auto second = server(conf);
  EXPECT_FALSE(second->startListener());
  EXPECT_EQ(second->tcpServerStatus()->reason().str(), "Bind (Address already in use)");
  EXPECT_DOUBLE_EQ(second->retryTimerExpireTime(), am_.now() + 3);
  first->stopListener();
  am_.advanceTime(3);
  EXPECT_TRUE(second->tcpServerStatus()->listening());

  conf->timeoutIs(4);
  second->restartListener();
  am_.advanceTime(4);
  EXPECT_FALSE(second->tcpServerStatus()->listening());
  EXPECT_EQ(second->tcpServerStatus()->serverTimedOutTimes(), 1u);
}

// --- options on idle, live and adopted connections --------------------------------------------

TEST_F(TcpKernelTest, ClientOptionsOnIdleLiveAndAdoptedConnections) {
  auto srv = loopbackServer();
  ASSERT_TRUE(srv->startListener());
  auto cconf = tcpClientConfigFactory(addr("127.0.0.1"), Port(port));
  auto status = tcpClientStatusFactory();
  auto cli = client(cconf, status, 3);
  // While idle there is no socket to change: nothing fails, nothing retries.
  cconf->optionsIs(Opt(Opt::txTtlBit));
  cconf->txTtlIs(IpTtl(17));
  EXPECT_EQ(status->connectionErrorCount(), 0u);
  EXPECT_EQ(cli->retryTimerExpireTime(), Brio::never);

  // A live connection keeps its socket over a key change.
  Glimmer::enable("Corvid", 5);
  Glimmer::Capture trace;
  ASSERT_TRUE(cli->startConnection());
  ASSERT_TRUE(connected(status, srv));
  TcpConnSocket const live = status->connSocket();
  EXPECT_EQ(intOption(live.descriptor(), IPPROTO_IP, IP_TTL), 17);
  cconf->md5AuthIs(prefix("127.0.0.1/32"), "later");
  EXPECT_TRUE(trace.contains("127.0.0.1/32 Ignoring MD5 change, will be applied at start of new connection"));
  EXPECT_EQ(status->connSocket(), live);
  Glimmer::enable("Corvid", -1);
  cli->stopConnection();

  // A connection made elsewhere and adopted gets the options too.
  cconf->md5AuthDel(prefix("127.0.0.1/32"));
  cconf->optionsIs(Opt(Opt::txDsBit | Opt::dontRouteBit));
  cconf->txDsIs(IpDscp(40));
  cconf->dstIntfIfIndexIs(2);  // any index: SO_DONTROUTE keeps only on/off
  int c = connectToPort();
  EXPECT_TRUE(cli->connectionConfirmed(tcpFileDescriptorFactory(c, false), addr("127.0.0.1"), Port(boundPort(c)),
                                       Port(port)));
  EXPECT_EQ(cli->getClientSocket(), c);
  EXPECT_EQ(intOption(c, SOL_SOCKET, SO_DONTROUTE), 1);
  EXPECT_EQ(intOption(c, IPPROTO_IP, IP_TOS), 40);

  // Failures, each with its reason: a socket the kernel refuses options on
  // is not adopted; a namespace that does not exist fails at the socket.
  EXPECT_FALSE(cli->connectionConfirmed(tcpFileDescriptorFactory(-1, false), addr("127.0.0.1"), Port(1), Port(port)));
  EXPECT_EQ(status->reason().str(), "Setsockopt (Bad file descriptor)");
  EXPECT_FALSE(status->connSocket());
  cconf->networkNamespaceIs(NamespaceName("corvid-no-such-namespace"));
  EXPECT_FALSE(cli->startConnection());
  EXPECT_EQ(status->reason().str(), "Socket (No such file or directory)");
}

// --- MD5 and GTSM between two namespaces -----------------------------------------------------

// Which sessions the server admits: MD5 keys (the server's key is "s3cret"),
// or GTSM (the server asks for TTL 255: a peer one hop away sends that).
// The client runs in the test's own namespace, the server in a named one;
// a veth pair joins them (10.77.0.1 / fd00:77::1 here, .2 / ::2 there).
TEST_F(TcpKernelTest, AdmitsOnlyTheRightKeyOrTtl) {
  NamedNetns peer("tcp");
  ASSERT_TRUE(peer.ok());
  ASSERT_EQ(sh("ip link add vc type veth peer name vs netns " + peer.name() +
               " && ip link set vc up && ip addr add 10.77.0.1/24 dev vc && ip addr add 10.77.0.3/24 dev vc && "
               "ip addr add fd00:77::1/64 dev vc nodad"),
            0);
  ASSERT_EQ(peer.ip("link set vs up"), 0);
  ASSERT_EQ(peer.ip("addr add 10.77.0.2/24 dev vs"), 0);
  ASSERT_EQ(peer.ip("addr add fd00:77::2/64 dev vs nodad"), 0);
  struct Case {
    char const* name;
    char const* serverAddr;
    char const* serverKeyFor;  // peer entry on the server; null: GTSM instead
    char const* clientKeyFor;  // peer entry on the client, null: no key
    char const* clientKey;
    bool connects;
    char const* clientIpAddr = nullptr;  // bound when set
    U8 clientTtl = 255;
  } const cases[] = {
      {"host key", "10.77.0.2", "10.77.0.1/32", "10.77.0.2/32", "s3cret", true},
      {"prefix key", "10.77.0.2", "10.77.0.0/24", "10.77.0.2/32", "s3cret", true},
      {"prefix key, another peer of it", "10.77.0.2", "10.77.0.9/24", "10.77.0.2/32", "s3cret", true, "10.77.0.3"},
      {"host key of another peer", "10.77.0.2", "10.77.0.1/32", "10.77.0.2/32", "s3cret", false, "10.77.0.3"},
      {"client without key", "10.77.0.2", "10.77.0.1/32", nullptr, "", false},
      {"client with a wrong key", "10.77.0.2", "10.77.0.0/24", "10.77.0.2/32", "wrong", false},
      {"ipv6 prefix key", "fd00:77::2", "fd00:77::/64", "fd00:77::2/128", "s3cret", true},
      {"GTSM, one hop away", "10.77.0.2", nullptr, nullptr, "", true},
      {"GTSM, one hop too far", "10.77.0.2", nullptr, nullptr, "", false, nullptr, 254},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    auto sconf = tcpServerConfigFactory(addr(c.serverAddr), Port(1790));
    sconf->networkNamespaceIs(NamespaceName(peer.c_str()));
    sconf->optionsIs(Opt(c.serverKeyFor ? Opt::md5AuthBit : Opt::rxMinTtlBit));
    sconf->rxMinTtlIs(IpTtl(255));  // used only with rxMinTtlBit
    if (c.serverKeyFor) sconf->md5AuthIs(prefix(c.serverKeyFor), "s3cret");
    auto cconf = tcpClientConfigFactory(addr(c.serverAddr), Port(1790));
    cconf->optionsIs(Opt(Opt::txTtlBit | (c.clientKeyFor ? Opt::md5AuthBit : 0)));
    cconf->txTtlIs(IpTtl(c.clientTtl));
    if (c.clientKeyFor) cconf->md5AuthIs(prefix(c.clientKeyFor), c.clientKey);
    if (c.clientIpAddr) cconf->clientIpAddrIs(addr(c.clientIpAddr));
    auto srv = server(sconf);
    ASSERT_TRUE(srv->startListener()) << srv->tcpServerStatus()->reason().view();
    auto cstatus = tcpClientStatusFactory();
    auto cli = client(cconf, cstatus);
    cli->startConnection();
    EXPECT_EQ(connected(cstatus, srv, c.connects ? 5 : 1.5), c.connects) << cstatus->reason().view();
    if (c.connects && c.clientIpAddr) {
      EXPECT_EQ(cstatus->connSocket().srcIpAddr(), addr(c.clientIpAddr));
    }
  }
}

}  // namespace
