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

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::NetnsScope;
using CorvidTest::sh;
using Status = TcpClientStatus::ConnectionStatus;

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

// A port nobody listens on in a fresh namespace.
U16 freePort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  U16 p = boundPort(s);
  close(s);
  return p;
}

IpGenAddr v4(char const* text) { return IpGenAddr(Brio::String(text)); }

struct Rig {
  Brio::Ptr<Quay::TimerWheel> wheel = Quay::TimerWheel::timerWheelFactory();
  Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> regs = tcpFileDescriptorEventRegistrationFactoryBrioc();
};

// --- value types ---------------------------------------------------------------------

TEST(TcpSocketOptions, StrepShortFormAndRoundTrip) {
  struct Case {
    U8 mask;
    char const* shortForm;
  } const cases[] = {
      {0, "<>"},
      {1, "<optionTxTtl>"},
      {1 | 8, "<optionTxTtl,optionMd5Auth>"},
      {2 | 4, "<optionTxDs,optionRxMinTtl>"},
      {16 | 32 | 64, "<>"},  // the higher flags never show in the short form
      {127, "<optionTxTtl,optionTxDs,optionRxMinTtl,optionMd5Auth>"},
  };
  for (auto const& c : cases) {
    TcpSocketOptions o(c.mask);
    EXPECT_EQ(o.value(), c.mask);
    EXPECT_EQ(tcpOptionsToStrep(o).str(), c.shortForm) << int(c.mask);
    Brio::String text = valueToStrep(o);
    EXPECT_EQ(Brio::strepToValue<TcpSocketOptions>(text), o) << text.view();
  }
  EXPECT_EQ(valueToStrep(TcpSocketOptions(1 | 64)).str(),
            "Value('Corvid::TcpSocketOptions', ** {'optionTxTtl': True, 'optionTxDs': False, "
            "'optionRxMinTtl': False, 'optionMd5Auth': False, 'optionSockMaxSegSize': False, "
            "'optionPathMtuDiscovery': False, 'optionDontRoute': True})");
}

TEST(TcpConnSocket, EmptyValueAndTextForms) {
  TcpConnSocket empty;
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty, TcpConnSocket(nullptr));
  auto fd = tcpFileDescriptorFactory(-1, false);
  TcpConnSocket s(fd, v4("10.0.0.1"), Port(4000), v4("10.0.0.2"), Port(179), 7);
  EXPECT_TRUE(s);
  EXPECT_EQ(s.toStrep().str(), "10.0.0.1 port 4000 -> 10.0.0.2 port 179 fd -1");
  Brio::String text = valueToStrep(s);
  EXPECT_EQ(text.str(),
            "Value('Corvid::TcpConnSocket', ** {'fileDescriptor': -1, 'srcIpAddr': 10.0.0.1, 'srcPort': 4000, "
            "'dstIpAddr': 10.0.0.2, 'dstPort': 179, 'ifIndex': 7})");
  TcpConnSocket back = Brio::strepToValue<TcpConnSocket>(text);
  EXPECT_FALSE(back);  // no descriptor is taken over from text
  EXPECT_EQ(back.dstIpAddr(), s.dstIpAddr());
  EXPECT_EQ(back.dstPort(), s.dstPort());
  EXPECT_EQ(back.ifIndex(), 7u);
  EXPECT_NE(back, s);
}

TEST(TcpConfig, DefaultsDumpsAndChangeOnlyNotification) {
  auto config = tcpServerConfigFactory(v4("10.1.2.3"), Port(179));
  EXPECT_EQ(config->retryInterval(), 1u);
  EXPECT_EQ(config->timeout(), 0.0);
  EXPECT_TRUE(config->pathMtuDiscovery());
  EXPECT_TRUE(config->networkNamespace().isDefault());
  struct Counter : TcpConfigBase::Notifiee {
    void handleRetryInterval() override { ++changes; }
    void handleMd5Auth(IpGenAddrWithMask const& a) override { keys.push_back(a.stringValue().str()); }
    int changes = 0;
    std::vector<std::string> keys;
  } counter;
  counter.notifierIs(config.ptr());
  config->retryIntervalIs(1);
  config->retryIntervalIs(3);
  config->retryIntervalIs(3);
  EXPECT_EQ(counter.changes, 1);
  config->optionsIs(TcpSocketOptions(1 | 8));
  config->txDsIs(IpDscp(10));
  config->md5AuthIs(IpGenAddrWithMask(Brio::String("10.0.0.0/24")), "k1");
  config->md5AuthIs(IpGenAddrWithMask(Brio::String("10.0.0.0/24")), "k1");
  EXPECT_EQ(counter.keys, std::vector<std::string>{"10.0.0.0/24"});
  std::ostringstream plain, indented;
  config->dumpState(plain);
  config->dumpState(indented, 2);
  EXPECT_EQ(plain.str(),
            "networkNamespace default listenIpAddr 10.1.2.3 listenPort 179\n"
            "retryInterval 3; timeout 0.000000; options <optionTxTtl,optionMd5Auth>; txDs 10; txTtl 0; rxMinTtl 0\n"
            "md5Auth #1\nmd5Auth( 10.0.0.0/24 ) : k1\n");
  EXPECT_EQ(indented.str().substr(0, 3), "  n");
  EXPECT_NE(indented.str().find("\n  md5Auth( 10.0.0.0/24 ) : k1\n"), std::string::npos);
  config->md5AuthDel(IpGenAddrWithMask(Brio::String("10.0.0.0/24")));
  EXPECT_EQ(config->md5Auth(IpGenAddrWithMask(Brio::String("10.0.0.0/24"))).str(), "");
  auto client = tcpClientConfigFactory(v4("10.0.0.2"), Port(179));
  EXPECT_EQ(client->kernelTcpTimeout(), TcpClientConfig::kernelTcpTimeoutDefault);
  EXPECT_EQ(client->clientIpAddr(), IpGenAddr(AddressFamily::ipv4));
}

TEST(TcpServerStatus, QueueIsFifoAndCountNeverDrops) {
  auto status = tcpServerStatusFactory();
  auto a = tcpFileDescriptorFactory(-1, false), b = tcpFileDescriptorFactory(-1, false);
  status->connSocketEnq(TcpConnSocket(a));
  status->connSocketCountInc();
  status->connSocketEnq(TcpConnSocket(b));
  status->connSocketCountInc();
  EXPECT_EQ(status->connSocketBack().fileDescriptor(), b);
  EXPECT_EQ(status->getConnSocket().fileDescriptor(), a);
  EXPECT_EQ(status->getConnSocket().fileDescriptor(), b);
  EXPECT_FALSE(status->getConnSocket());
  EXPECT_EQ(status->connSocketCount(), 2u);
  std::ostringstream os;
  status->dumpState(os);
  EXPECT_EQ(os.str(),
            "TcpServerStatus\nlistening no; reason ; startTimes 0; timedOutTimes 0; connSocketCount 2; "
            "eagainEintrTimes 0\n");
}

TEST(TcpFreeFunctionsDeathTest, InvariantTexts) {
  int sd = socket(AF_INET, SOCK_STREAM, 0);
  IpGenAddrWithMask peer(Brio::String("10.0.0.1/32"));
  EXPECT_DEATH(setSockMd5AuthOption(sd, peer, Brio::String(std::string(80, 'k'))), "key.bytes\\(\\) < 80");
  EXPECT_DEATH(setSockMd5AuthOption(sd, peer, ""), "md5AuthOptionKey");
  sockaddr_storage ss;
  EXPECT_DEATH(constructSockAddr(reinterpret_cast<sockaddr*>(&ss), IpGenAddr()), "Unexpected af");
  close(sd);
}

TEST(TcpEnums, TextFormsRoundTripAndRefuseOtherWords) {
  struct Case {
    std::string text;
    std::string bad;
    std::function<std::string(std::string const&)> roundTrip;
  } const cases[] = {
      {"connecting", "connect",
       [](std::string const& t) { return valueToStrep(Brio::strepToValue<Status>(Brio::String(t))).str(); }},
      {"timedout", "timedOut",
       [](std::string const& t) { return valueToStrep(Brio::strepToValue<Status>(Brio::String(t))).str(); }},
      {"sdEstablished", "sdestablished",
       [](std::string const& t) {
         return valueToStrep(Brio::strepToValue<TcpSmBase::SdType>(Brio::String(t))).str();
       }},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(c.roundTrip(c.text), c.text);
    EXPECT_THROW(c.roundTrip(c.bad), Brio::RangeException) << c.bad;
  }
  std::ostringstream os;
  os << Status::idle_ << " " << TcpSmBase::SdType::sdAccepted_;
  EXPECT_EQ(os.str(), "idle sdAccepted");
}

// --- options read back from the kernel ----------------------------------------------------

class TcpOptionsTest : public ::testing::TestWithParam<AddressFamily> {
 protected:
  void SetUp() override { CORVID_REQUIRE_NETNS(ns_); }
  bool v6() const { return GetParam() == AddressFamily::ipv6; }
  IpGenAddr loopback() const { return v6() ? IpGenAddr(Brio::String("::1")) : v4("127.0.0.1"); }
  int ipLevel() const { return v6() ? IPPROTO_IPV6 : IPPROTO_IP; }
  int ttlName() const { return v6() ? IPV6_UNICAST_HOPS : IP_TTL; }
  int tosName() const { return v6() ? IPV6_TCLASS : IP_TOS; }
  int minTtlName() const { return v6() ? 73 : 21; }
  int pmtuName() const { return v6() ? IPV6_MTU_DISCOVER : IP_MTU_DISCOVER; }

  NetnsScope ns_;
  Brio::ActivityManager am_;
  Rig rig_;
};

TEST_P(TcpOptionsTest, EveryOptionReadsBackOnEachKindOfSocket) {
  U16 const port = freePort();
  TcpSocketOptions const all(1 | 2 | 4 | 16 | 32 | 64);
  auto sconf = tcpServerConfigFactory(loopback(), Port(port));
  sconf->optionsIs(all);
  sconf->txTtlIs(IpTtl(33));
  sconf->txDsIs(IpDscp(46));  // the kernel keeps its own ECN bits: 46 reads back as 44
  sconf->rxMinTtlIs(IpTtl(7));
  sconf->sockMaxSegSizeIs(1200);
  sconf->dstIntfIfIndexIs(1);
  auto sstatus = tcpServerStatusFactory();
  auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, sconf, sstatus);
  ASSERT_TRUE(server->startListener()) << sstatus->reason().view();
  int const ls = server->fd()->fileDescriptor()->descriptor();

  auto cconf = tcpClientConfigFactory(loopback(), Port(port));
  cconf->optionsIs(all);
  cconf->txTtlIs(IpTtl(44));
  cconf->txDsIs(IpDscp(32));
  cconf->rxMinTtlIs(IpTtl(9));
  cconf->sockMaxSegSizeIs(1100);
  cconf->pathMtuDiscoveryIs(false);
  cconf->dstIntfIfIndexIs(1);
  auto cstatus = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 1, cconf, cstatus);
  ASSERT_TRUE(client->startConnection()) << cstatus->reason().view();
  if (client->fd()) {  // still connecting: the connecting socket has them too
    int const cs = client->fd()->fileDescriptor()->descriptor();
    EXPECT_EQ(intOption(cs, ipLevel(), ttlName()), 44);
    // Read back from a socket past its SYN: the MSS less the timestamp option.
    EXPECT_LE(intOption(cs, IPPROTO_TCP, TCP_MAXSEG), 1100);
    EXPECT_GE(intOption(cs, IPPROTO_TCP, TCP_MAXSEG), 1100 - 40);
  }
  ASSERT_TRUE(am_.runUntil([&] { return cstatus->connectionStatus() == Status::connected_ && sstatus->connSockets(); }, 5));
  int const es = client->getClientSocket();
  TcpConnSocket accepted = sstatus->getConnSocket();
  ASSERT_TRUE(accepted);
  int const as = accepted.descriptor();

  struct Row {
    char const* what;
    int sd;
    int level, name, expected;
  };
  std::vector<Row> const rows = {
      {"listening ttl", ls, ipLevel(), ttlName(), 33},
      {"listening tos", ls, ipLevel(), tosName(), 44},
      {"listening minttl", ls, ipLevel(), minTtlName(), 7},
      {"listening pmtu", ls, ipLevel(), pmtuName(), 2},
      {"listening mss", ls, IPPROTO_TCP, TCP_MAXSEG, 1200},
      {"accepted ttl", as, ipLevel(), ttlName(), 33},
      {"accepted tos", as, ipLevel(), tosName(), 44},
      {"accepted minttl", as, ipLevel(), minTtlName(), 7},
      {"established ttl", es, ipLevel(), ttlName(), 44},
      {"established tos", es, ipLevel(), tosName(), 32},
      {"established minttl", es, ipLevel(), minTtlName(), 9},
      {"established pmtu", es, ipLevel(), pmtuName(), 0},
  };
  for (auto const& r : rows) EXPECT_EQ(intOption(r.sd, r.level, r.name), r.expected) << r.what;
  if (v6()) {
    EXPECT_EQ(intOption(ls, IPPROTO_IPV6, IPV6_V6ONLY), 1);
    EXPECT_EQ(intOption(es, IPPROTO_IPV6, IPV6_UNICAST_IF), int(htonl(1)));
  } else {
    EXPECT_EQ(intOption(ls, SOL_SOCKET, SO_DONTROUTE), 1);
    EXPECT_EQ(intOption(es, SOL_SOCKET, SO_DONTROUTE), 1);
  }

  // Clearing options on the live client turns them back off on its socket.
  cconf->optionsIs(TcpSocketOptions(2 | 4));
  EXPECT_EQ(cstatus->connectionStatus(), Status::connected_) << cstatus->reason().view();
  EXPECT_EQ(intOption(es, ipLevel(), ttlName()), 64);
  EXPECT_EQ(intOption(es, ipLevel(), minTtlName()), 9);
  if (!v6()) EXPECT_EQ(intOption(es, SOL_SOCKET, SO_DONTROUTE), 0);
  if (v6()) EXPECT_EQ(intOption(es, IPPROTO_IPV6, IPV6_UNICAST_IF), 0);
  cconf->optionsIs(TcpSocketOptions(0));
  EXPECT_EQ(intOption(es, ipLevel(), tosName()), 0);
  EXPECT_EQ(intOption(es, ipLevel(), minTtlName()), 0);
  EXPECT_EQ(client->lastOptionsApplied(), TcpSocketOptions(0));
}

TEST_P(TcpOptionsTest, V6OnlyOnlyOnIpv6ListenersAndFollowsTheFlag) {
  // The wildcard address: binding a specific IPv6 address makes the
  // kernel set IPV6_V6ONLY by itself.
  auto sconf = tcpServerConfigFactory(v6() ? IpGenAddr(Brio::String("::")) : v4("0.0.0.0"), Port(freePort()));
  auto sstatus = tcpServerStatusFactory();
  auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, sconf, sstatus);
  server->v6OnlyIs(false);
  ASSERT_TRUE(server->startListener());
  int const ls = server->fd()->fileDescriptor()->descriptor();
  EXPECT_EQ(intOption(ls, IPPROTO_IPV6, IPV6_V6ONLY), v6() ? 0 : -99999);
}

INSTANTIATE_TEST_SUITE_P(Families, TcpOptionsTest, ::testing::Values(AddressFamily::ipv4, AddressFamily::ipv6),
                         [](auto const& info) { return std::string(valueToStrep(info.param).str()); });

// --- retry, backoff and timeout on manual time ----------------------------------------------

class TcpRetryTest : public ::testing::Test {
 protected:
  void SetUp() override { CORVID_REQUIRE_NETNS(ns_); }
  // Runs the loop until the attempt in progress is refused.
  bool refused(Brio::Ptr<TcpClientStatus> const& s) {
    return am_.runUntil([&] { return s->connectionStatus() == Status::failed_; }, 5);
  }
  NetnsScope ns_;
  Brio::ActivityManager am_{Brio::ActivityManager::TimeSource::manual};
  Rig rig_;
};

TEST_F(TcpRetryTest, RefusedConnectsBackOffAndTheSequenceRestarts) {
  struct Case {
    U32 retryInterval, backoff;
    std::vector<U32> intervals;
  } const cases[] = {
      {1, 0, {1, 1, 1, 1}},
      {2, 3, {2, 4, 8, 2, 4, 8, 2}},
      {1, 4, {1, 2, 4, 8, 1, 2}},
  };
  for (auto const& c : cases) {
    auto config = tcpClientConfigFactory(v4("127.0.0.1"), Port(freePort()));
    config->retryIntervalIs(c.retryInterval);
    config->exponentialBackoffRetriesIs(c.backoff);
    auto status = tcpClientStatusFactory();
    auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 7, config, status);
    client->startConnection();
    std::vector<U32> seen;
    for (std::size_t i = 0; i < c.intervals.size(); ++i) {
      ASSERT_TRUE(refused(status)) << "attempt " << i;
      EXPECT_EQ(status->reason().str(), "Connect (Connection refused)");
      seen.push_back(status->retryTimerInterval());
      EXPECT_DOUBLE_EQ(status->retryTimerNext(), am_.now() + status->retryTimerInterval());
      // Nothing happens a millisecond before the timer, the attempt at it.
      U32 const attempts = status->connectionAttemptCount();
      am_.advanceTime(status->retryTimerInterval() - 0.001);
      EXPECT_EQ(status->connectionAttemptCount(), attempts);
      am_.advanceTime(0.001);
      EXPECT_EQ(status->connectionAttemptCount(), attempts + 1);
    }
    EXPECT_EQ(seen, c.intervals) << "retryInterval " << c.retryInterval << " backoff " << c.backoff;
    EXPECT_EQ(status->connectionErrorCount(), c.intervals.size());
    EXPECT_EQ(status->connectionSuccessCount(), 0u);
  }
}

TEST_F(TcpRetryTest, TimeoutCountsFromTheFirstAttemptAndStopsRetrying) {
  auto config = tcpClientConfigFactory(v4("127.0.0.1"), Port(freePort()));
  config->retryIntervalIs(2);
  config->timeoutIs(5);
  auto status = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 1, config, status);
  F64 const start = am_.now();
  client->startConnection();
  EXPECT_DOUBLE_EQ(client->timeoutTimerExpireTime(), start + 5);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(refused(status));
    am_.advanceTime(2);  // retries at 2 and 4 do not move the timeout
    EXPECT_DOUBLE_EQ(client->timeoutTimerExpireTime(), start + 5);
  }
  ASSERT_TRUE(refused(status));
  am_.advanceTime(1);
  EXPECT_EQ(status->connectionStatus(), Status::timedout_);
  EXPECT_EQ(client->retryTimerExpireTime(), Brio::never);
  U32 const attempts = status->connectionAttemptCount();
  am_.advanceTime(100);
  EXPECT_EQ(status->connectionAttemptCount(), attempts);
}

TEST_F(TcpRetryTest, ConnectingUsesTheKernelTimeoutAsRetryInterval) {
  // A neighbour that never answers keeps the connect in progress.
  ASSERT_EQ(sh("ip link add d0 type veth peer name d1 && ip link set d0 up && ip link set d1 up && "
               "ip addr add 10.9.9.1/24 dev d0"),
            0);
  auto config = tcpClientConfigFactory(v4("10.9.9.2"), Port(179));
  auto status = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 1, config, status);
  ASSERT_TRUE(client->startConnection());
  EXPECT_EQ(status->connectionStatus(), Status::connecting_);
  EXPECT_EQ(status->retryTimerInterval(), 20u);
  int const first = client->fd()->fileDescriptor()->descriptor();
  am_.advanceTime(20);  // the retry timer is the connect timeout: a fresh attempt
  EXPECT_EQ(status->connectionAttemptCount(), 2u);
  EXPECT_EQ(client->retryTimes(), 1u);
  ASSERT_TRUE(client->fd());
  EXPECT_EQ(fcntl(first, F_GETFD) >= 0, client->fd()->fileDescriptor()->descriptor() == first);
  client->stopConnection();
  EXPECT_EQ(status->connectionStatus(), Status::idle_);
  EXPECT_FALSE(client->fd());
}

TEST_F(TcpRetryTest, ServerRestartsDeferredOnMd5ChangeAndFailedOptions) {
  U16 const port = freePort();
  auto sconf = tcpServerConfigFactory(v4("127.0.0.1"), Port(port));
  auto sstatus = tcpServerStatusFactory();
  auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, sconf, sstatus);
  EXPECT_EQ(sstatus->reason().str(), "Not started");
  ASSERT_TRUE(server->startListener());
  sconf->md5AuthIs(IpGenAddrWithMask(Brio::String("127.0.0.1/32")), "key");
  // Not inside the handler: the restart waits for the next turn.
  EXPECT_FALSE(sstatus->listening());
  EXPECT_DOUBLE_EQ(server->retryTimerExpireTime(), am_.now());
  am_.runOnce(0);
  am_.runOnce(0);
  EXPECT_TRUE(sstatus->listening());
  EXPECT_EQ(sstatus->serverStartTimes(), 2u);

  // A failed option on an accepted socket drops it and restarts the listener.
  server->failApplySocketOptionsInTestIs(true);
  int c = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(c, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  ASSERT_TRUE(am_.runUntil([&] { return !sstatus->listening(); }, 5));
  EXPECT_EQ(sstatus->reason().view().substr(0, 12), "Setsockopt (");
  EXPECT_FALSE(server->failApplySocketOptionsInTest());
  EXPECT_EQ(sstatus->connSocketCount(), 0u);
  am_.advanceTime(0);
  ASSERT_TRUE(am_.runUntil([&] { return sstatus->listening(); }, 5));
  close(c);
}

TEST_F(TcpRetryTest, ServerErrorsGiveTheirReasons) {
  auto zero = tcpServerSmFactory(rig_.regs, rig_.wheel, tcpServerConfigFactory(v4("127.0.0.1"), Port(0)),
                                 tcpServerStatusFactory());
  EXPECT_FALSE(zero->startListener());
  EXPECT_EQ(zero->tcpServerStatus()->reason().str(), "Listening port is 0");
  EXPECT_EQ(zero->retryTimerExpireTime(), Brio::never);

  U16 const port = freePort();
  auto first = tcpServerSmFactory(rig_.regs, rig_.wheel, tcpServerConfigFactory(v4("127.0.0.1"), Port(port)),
                                  tcpServerStatusFactory());
  ASSERT_TRUE(first->startListener());
  EXPECT_TRUE(first->startListener());  // already listening
  auto conf = tcpServerConfigFactory(v4("127.0.0.1"), Port(port));
  conf->retryIntervalIs(3);
  auto second = tcpServerSmFactory(rig_.regs, rig_.wheel, conf, tcpServerStatusFactory());
  EXPECT_FALSE(second->startListener());
  EXPECT_EQ(second->tcpServerStatus()->reason().str(), "Bind (Address already in use)");
  EXPECT_DOUBLE_EQ(second->retryTimerExpireTime(), am_.now() + 3);
  first->stopListener();
  am_.advanceTime(3);
  EXPECT_TRUE(second->tcpServerStatus()->listening());
  EXPECT_EQ(second->retryTimes(), 1u);

  conf->timeoutIs(4);
  second->restartListener();
  am_.advanceTime(4);
  EXPECT_FALSE(second->tcpServerStatus()->listening());
  EXPECT_EQ(second->tcpServerStatus()->serverTimedOutTimes(), 1u);
}

TEST_F(TcpRetryTest, NoDescriptorLeaksAfterClientsAndServers) {
  int const before = CorvidTest::openDescriptors();
  {
    U16 const port = freePort();
    auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, tcpServerConfigFactory(v4("127.0.0.1"), Port(port)),
                                     tcpServerStatusFactory());
    ASSERT_TRUE(server->startListener());
    auto status = tcpClientStatusFactory();
    auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 1, tcpClientConfigFactory(v4("127.0.0.1"), Port(port)),
                                     status);
    client->startConnection();
    ASSERT_TRUE(am_.runUntil([&] { return status->connectionStatus() == Status::connected_ &&
                                          server->tcpServerStatus()->connSockets() == 1; }, 5));
    auto refusedStatus = tcpClientStatusFactory();
    auto refusedClient = tcpClientSmFactory(rig_.regs, rig_.wheel, 2,
                                            tcpClientConfigFactory(v4("127.0.0.1"), Port(freePort())), refusedStatus);
    for (int i = 0; i < 3; ++i) {
      refusedClient->startConnection();
      ASSERT_TRUE(refused(refusedStatus));
    }
    server->restartListener();
    // A namespace that does not exist: the attempt fails at the socket.
    auto nsConf = tcpClientConfigFactory(v4("127.0.0.1"), Port(port));
    nsConf->networkNamespaceIs(NamespaceName("corvid-no-such-namespace"));
    auto nsStatus = tcpClientStatusFactory();
    auto nsClient = tcpClientSmFactory(rig_.regs, rig_.wheel, 3, nsConf, nsStatus);
    EXPECT_FALSE(nsClient->startConnection());
    EXPECT_EQ(nsStatus->reason().str(), "Socket (No such file or directory)");
    EXPECT_EQ(nsStatus->connectionStatus(), Status::failed_);
  }
  EXPECT_EQ(CorvidTest::openDescriptors(), before);
}

class TcpLoopbackTest : public ::testing::Test {
 protected:
  void SetUp() override { CORVID_REQUIRE_NETNS(ns_); }
  NetnsScope ns_;
  Brio::ActivityManager am_;
  Rig rig_;
};

// Options cleared on a server reach its listening socket; sockets already
// accepted keep what they got, deliberately: their options are never
// cleared, only set.
TEST_F(TcpLoopbackTest, ClearedServerOptionsSpareAcceptedSockets) {
  U16 const port = freePort();
  auto sconf = tcpServerConfigFactory(v4("127.0.0.1"), Port(port));
  sconf->optionsIs(TcpSocketOptions(TcpSocketOptions::txTtlBit));
  sconf->txTtlIs(IpTtl(33));
  auto sstatus = tcpServerStatusFactory();
  auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, sconf, sstatus);
  ASSERT_TRUE(server->startListener());
  auto connectOne = [&] {
    int c = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(c, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    U32 const before = sstatus->connSocketCount();
    EXPECT_TRUE(am_.runUntil([&] { return sstatus->connSocketCount() > before; }, 5));
    return c;
  };
  int c1 = connectOne();
  TcpConnSocket first = sstatus->getConnSocket();
  ASSERT_TRUE(first);
  EXPECT_EQ(first.srcIpAddr(), v4("127.0.0.1"));
  EXPECT_EQ(first.srcPort().value(), port);
  EXPECT_EQ(first.dstPort().value(), boundPort(c1));
  int const listenSd = server->fd()->fileDescriptor()->descriptor();
  sconf->optionsIs(TcpSocketOptions(0));
  EXPECT_TRUE(sstatus->listening());  // no key involved: the live socket is changed
  EXPECT_EQ(server->fd()->fileDescriptor()->descriptor(), listenSd);
  EXPECT_EQ(intOption(listenSd, IPPROTO_IP, IP_TTL), 64);
  EXPECT_EQ(intOption(first.descriptor(), IPPROTO_IP, IP_TTL), 33);
  int c2 = connectOne();
  EXPECT_EQ(intOption(sstatus->getConnSocket().descriptor(), IPPROTO_IP, IP_TTL), 64);
  close(c1);
  close(c2);
}

TEST_F(TcpLoopbackTest, ClientKeepsItsLiveConnectionOverKeyAndIdleOptionChanges) {
  U16 const port = freePort();
  auto server = tcpServerSmFactory(rig_.regs, rig_.wheel, tcpServerConfigFactory(v4("127.0.0.1"), Port(port)),
                                   tcpServerStatusFactory());
  ASSERT_TRUE(server->startListener());
  auto cconf = tcpClientConfigFactory(v4("127.0.0.1"), Port(port));
  auto status = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 3, cconf, status);
  // While idle there is no socket to change: nothing fails, nothing retries.
  cconf->optionsIs(TcpSocketOptions(TcpSocketOptions::txTtlBit));
  cconf->txTtlIs(IpTtl(17));
  EXPECT_EQ(status->connectionStatus(), Status::idle_);
  EXPECT_EQ(status->connectionErrorCount(), 0u);
  EXPECT_EQ(client->retryTimerExpireTime(), Brio::never);
  Glimmer::enable("Corvid", 5);
  Glimmer::Capture trace;
  ASSERT_TRUE(client->startConnection());
  ASSERT_TRUE(am_.runUntil([&] { return status->connectionStatus() == Status::connected_; }, 5));
  EXPECT_TRUE(trace.contains("Connection is in progress"));
  EXPECT_TRUE(trace.contains("Connected: fileDescriptor="));
  TcpConnSocket const live = status->connSocket();
  EXPECT_EQ(intOption(live.descriptor(), IPPROTO_IP, IP_TTL), 17);
  EXPECT_EQ(client->retryTimerExpireTime(), Brio::never);
  cconf->md5AuthIs(IpGenAddrWithMask(Brio::String("127.0.0.1/32")), "later");
  EXPECT_TRUE(trace.contains("127.0.0.1/32 Ignoring MD5 change, will be applied at start of new connection"));
  EXPECT_EQ(status->connSocket(), live);
  EXPECT_EQ(status->connectionStatus(), Status::connected_);
  Glimmer::enable("Corvid", -1);
  client->stopConnection();
  EXPECT_FALSE(status->connSocket());
  EXPECT_EQ(fcntl(live.descriptor(), F_GETFD) >= 0, true);  // `live` still holds it
}

TEST_F(TcpLoopbackTest, AdoptedConnectionGetsOptionsAndInterfaceBinding) {
  U16 const port = freePort();
  int l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a);
  listen(l, 1);
  int c = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  auto cconf = tcpClientConfigFactory(v4("127.0.0.1"), Port(port));
  cconf->optionsIs(TcpSocketOptions(TcpSocketOptions::txDsBit | TcpSocketOptions::dontRouteBit));
  cconf->txDsIs(IpDscp(40));
  cconf->dstIntfIfIndexIs(2);  // any index: SO_DONTROUTE keeps only on/off
  auto status = tcpClientStatusFactory();
  auto client = tcpClientSmFactory(rig_.regs, rig_.wheel, 4, cconf, status);
  auto fd = tcpFileDescriptorFactory(c, false);
  EXPECT_TRUE(client->connectionConfirmed(fd, v4("127.0.0.1"), Port(boundPort(c)), Port(port)));
  EXPECT_EQ(status->connectionStatus(), Status::connected_);
  EXPECT_EQ(client->getClientSocket(), c);
  EXPECT_EQ(intOption(c, SOL_SOCKET, SO_DONTROUTE), 1);
  EXPECT_EQ(intOption(c, IPPROTO_IP, IP_TOS), 40);
  // A socket the kernel refuses options on is not adopted.
  auto dead = tcpFileDescriptorFactory(-1, false);
  EXPECT_FALSE(client->connectionConfirmed(dead, v4("127.0.0.1"), Port(1), Port(port)));
  EXPECT_EQ(status->reason().str(), "Setsockopt (Bad file descriptor)");
  EXPECT_FALSE(status->connSocket());
  EXPECT_EQ(status->connectionStatus(), Status::failed_);
  close(l);
}

// --- MD5 and GTSM between two namespaces -----------------------------------------------------

// The client runs in the test's own namespace, the server in a named one;
// a veth pair joins them (10.77.0.1 / fd00:77::1 here, .2 / ::2 there).
class TcpTwoNamespacesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    ASSERT_TRUE(server_.ok());
    ASSERT_EQ(sh("ip link add vc type veth peer name vs netns " + server_.name() +
                 " && ip link set vc up && ip addr add 10.77.0.1/24 dev vc && ip addr add 10.77.0.3/24 dev vc && "
                 "ip addr add fd00:77::1/64 dev vc nodad"),
              0);
    ASSERT_EQ(server_.ip("link set vs up"), 0);
    ASSERT_EQ(server_.ip("addr add 10.77.0.2/24 dev vs"), 0);
    ASSERT_EQ(server_.ip("addr add fd00:77::2/64 dev vs nodad"), 0);
  }

  struct Session {
    Brio::Ptr<TcpServerSm> server;
    Brio::Ptr<TcpClientSm> client;
    bool connected = false;
  };

  Session connect(IpGenAddr serverAddr, std::function<void(TcpServerConfig*)> serverSetup,
                  std::function<void(TcpClientConfig*)> clientSetup, F64 wait) {
    Session s;
    auto sconf = tcpServerConfigFactory(serverAddr, Port(1790));
    sconf->networkNamespaceIs(NamespaceName(server_.c_str()));
    serverSetup(sconf.ptr());
    s.server = tcpServerSmFactory(rig_.regs, rig_.wheel, sconf, tcpServerStatusFactory());
    EXPECT_TRUE(s.server->startListener()) << s.server->tcpServerStatus()->reason().view();
    auto cconf = tcpClientConfigFactory(serverAddr, Port(1790));
    clientSetup(cconf.ptr());
    auto cstatus = tcpClientStatusFactory();
    s.client = tcpClientSmFactory(rig_.regs, rig_.wheel, 1, cconf, cstatus);
    s.client->startConnection();
    s.connected = am_.runUntil(
        [&] {
          return cstatus->connectionStatus() == Status::connected_ && s.server->tcpServerStatus()->connSockets();
        },
        wait);
    return s;
  }

  NetnsScope ns_;
  NamedNetns server_{"tcp"};
  Brio::ActivityManager am_;
  Rig rig_;
};

TEST_F(TcpTwoNamespacesTest, Md5KeysAdmitOnlyTheRightKey) {
  struct Case {
    char const* name;
    char const* serverAddr;
    char const* serverKeyFor;  // peer entry on the server
    char const* clientKeyFor;  // peer entry on the client, null: no key
    char const* clientKey;
    bool connects;
    char const* clientIpAddr = nullptr;  // bound when set
  } const cases[] = {
      {"host key", "10.77.0.2", "10.77.0.1/32", "10.77.0.2/32", "s3cret", true},
      {"prefix key", "10.77.0.2", "10.77.0.0/24", "10.77.0.2/32", "s3cret", true},
      {"prefix key with host bits", "10.77.0.2", "10.77.0.9/24", "10.77.0.2/32", "s3cret", true},
      {"prefix key, another peer of it", "10.77.0.2", "10.77.0.9/24", "10.77.0.2/32", "s3cret", true, "10.77.0.3"},
      {"host key of another peer", "10.77.0.2", "10.77.0.1/32", "10.77.0.2/32", "s3cret", false, "10.77.0.3"},
      {"client without key", "10.77.0.2", "10.77.0.1/32", nullptr, "", false},
      {"client with a wrong key", "10.77.0.2", "10.77.0.0/24", "10.77.0.2/32", "wrong", false},
      {"ipv6 host key", "fd00:77::2", "fd00:77::1/128", "fd00:77::2/128", "s3cret", true},
      {"ipv6 prefix key", "fd00:77::2", "fd00:77::/64", "fd00:77::2/128", "s3cret", true},
      {"ipv6 wrong key", "fd00:77::2", "fd00:77::/64", "fd00:77::2/128", "nope", false},
  };
  for (auto const& c : cases) {
    Session s = connect(
        IpGenAddr(Brio::String(c.serverAddr)),
        [&](TcpServerConfig* conf) {
          conf->optionsIs(TcpSocketOptions(TcpSocketOptions::md5AuthBit));
          conf->md5AuthIs(IpGenAddrWithMask(Brio::String(c.serverKeyFor)), "s3cret");
        },
        [&](TcpClientConfig* conf) {
          if (c.clientIpAddr) conf->clientIpAddrIs(v4(c.clientIpAddr));
          if (!c.clientKeyFor) return;
          conf->optionsIs(TcpSocketOptions(TcpSocketOptions::md5AuthBit));
          conf->md5AuthIs(IpGenAddrWithMask(Brio::String(c.clientKeyFor)), c.clientKey);
        },
        c.connects ? 5 : 1.5);
    EXPECT_EQ(s.connected, c.connects) << c.name << ": " << s.client->tcpClientStatus()->reason().view();
    if (c.connects && c.clientIpAddr) {
      EXPECT_EQ(s.client->tcpClientStatus()->connSocket().srcIpAddr(), v4(c.clientIpAddr)) << c.name;
    }
    if (!c.connects) EXPECT_EQ(s.server->tcpServerStatus()->connSocketCount(), 0u) << c.name;
  }
}

TEST_F(TcpTwoNamespacesTest, GtsmRefusesAPeerOneHopTooFar) {
  for (U8 ttl : {254, 255}) {
    Session s = connect(
        v4("10.77.0.2"),
        [](TcpServerConfig* conf) {
          conf->optionsIs(TcpSocketOptions(TcpSocketOptions::rxMinTtlBit));
          conf->rxMinTtlIs(IpTtl(255));
        },
        [&](TcpClientConfig* conf) {
          conf->optionsIs(TcpSocketOptions(TcpSocketOptions::txTtlBit));
          conf->txTtlIs(IpTtl(ttl));
        },
        ttl == 255 ? 5 : 1.5);
    EXPECT_EQ(s.connected, ttl == 255) << "ttl " << int(ttl);
  }
}

}  // namespace
