// The PDU endpoint on a real loopback TCP connection in the test's own
// namespace: framing cases in every read mode, partial writes against a slow
// reader, deferred one-direction modes, keepalive read back, descriptors.
#include <Brio/ActivityManager.h>
#include <Corvid/SimpleTcpPduPam.h>
#include <Glimmer/Glimmer.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NetnsScope;
using Mode = TcpPduPamEnableMode;

namespace {

// A PDU of `length` bytes; its header may declare another length.
std::string pdu(U32 length, char fill = 'x', U32 declared = 0) {
  std::string s(length < 20 ? 20 : length, fill);
  for (int i = 0; i < 20; ++i) s[i] = static_cast<char>(i);
  if (declared == 0) declared = length;
  s[2] = static_cast<char>(declared >> 8);
  s[3] = static_cast<char>(declared);
  return s;
}

Brio::Ptr<Pkt> pktOf(std::string const& bytes) {
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(bytes);
  return pkt;
}

// A connected loopback pair: `ours` for the endpoint, `peer` for the test.
struct Pair {
  Pair() {
    int l = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(l, 1);
    socklen_t len = sizeof a;
    getsockname(l, reinterpret_cast<sockaddr*>(&a), &len);
    peer = socket(AF_INET, SOCK_STREAM, 0);
    connect(peer, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ours = accept(l, nullptr, nullptr);
    close(l);
    int one = 1, big = 1 << 20;  // room for a whole burst while the loop is not running
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(ours, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  }
  ~Pair() {
    if (peer >= 0) close(peer);
  }
  void send(std::string const& bytes) const { ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), 0), ssize_t(bytes.size())); }
  // A small send buffer only: a small receive window on loopback's large
  // MSS would stall on zero-window probes instead.
  void smallSendBuffer() const {
    int small = 4096;
    setsockopt(ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  }
  int ours = -1;
  int peer = -1;
};

// Owner as agents write them: drains on every readableCount change.
class Owner : public TcpPduPam::Notifiee {
 public:
  explicit Owner(Brio::Ptr<TcpPduPam> const& p) : Notifiee(p), pam_(p.ptr()) {}
  void handleReadableCount() override {
    while (auto pkt = pam_->rxPkt()) got.push_back(pkt->stringValue().str());
  }
  void handleRxErrorReason() override { error = pam_->rxErrorReason().str(); }
  std::vector<std::string> got;
  std::string error;

 private:
  TcpPduPam* pam_;
};

// An endpoint that scrambles its stream replaces only the socket hooks;
// every framing case in both read modes goes through them too.
class XorPduPam : public SimpleTcpPduPam {
 public:
  XorPduPam(Brio::Ptr<TcpFileDescriptor const> const& fd)
      : SimpleTcpPduPam(fd, tcpFileDescriptorEventRegistrationFactoryBrioc()) {}
  static std::string scrambled(std::string s) {
    for (char& ch : s) ch ^= 0x5a;
    return s;
  }

 protected:
  int readPkt(Brio::Ptr<Pkt> const& pkt, U16 length) override {
    int n = SimpleTcpPduPam::readPkt(pkt, length);
    U8* p = pkt->sharedBuffer()->data() + pkt->sharedBuffer()->dataBytes() - length;
    for (int i = 0; i < n; ++i) p[i] ^= 0x5a;
    return n;
  }
};

// Every endpoint is torn down by the end of its test: no descriptor stays
// open or registered with the loop.
class TcpPduPamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    descriptors_ = CorvidTest::openDescriptors();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_EQ(CorvidTest::openDescriptors(), descriptors_) << "descriptors leaked";
    EXPECT_EQ(am_.descriptors(), 0u);
  }
  Brio::Ptr<SimpleTcpPduPam> endpoint(int fd, bool edge, bool xored = false) {
    if (xored) return Brio::Ptr<SimpleTcpPduPam>(new XorPduPam(tcpFileDescriptorFactory(fd, edge)));
    return simpleTcpPduPamFactory(tcpFileDescriptorFactory(fd, edge), tcpFileDescriptorEventRegistrationFactoryBrioc());
  }
  void turns(int n = 5) {
    for (int i = 0; i < n; ++i) am_.runOnce(0.002);
  }
  NetnsScope ns_;
  int descriptors_ = 0;
  Brio::ActivityManager am_;
};

struct FramingCase {
  char const* name;
  std::vector<std::string> chunks;  // written one at a time, the loop running between
  bool closeAfter;
  std::vector<std::string> pdus;
  char const* error;
};

std::vector<std::string> bytesOf(std::string const& s, std::size_t step) {
  std::vector<std::string> out;
  for (std::size_t i = 0; i < s.size(); i += step) out.push_back(s.substr(i, step));
  return out;
}

std::vector<FramingCase> framingCases() {
  std::string const big = pdu(5000, 'b');
  // More than one read-ahead buffer at once, PDUs straddling its end: an
  // edge-triggered descriptor sends no event for bytes already waiting.
  std::string burst;
  std::vector<std::string> burstPdus;
  for (int i = 0; i < 150; ++i) {
    burstPdus.push_back(pdu(1000 + i, static_cast<char>('a' + i % 26)));
    burst += burstPdus.back();
  }
  return {
      {"byte at a time", bytesOf(pdu(30, 'a'), 1), false, {pdu(30, 'a')}, ""},
      {"split over many segments", bytesOf(big, 100), false, {big}, ""},
      {"several in one segment", {pdu(21, 'c') + pdu(20) + pdu(300, 'd')}, false, {pdu(21, 'c'), pdu(20), pdu(300, 'd')}, ""},
      {"largest allowed", {pdu(9600, 'm')}, false, {pdu(9600, 'm')}, ""},
      {"length too big", {pdu(20, 'z') + pdu(20, 'x', 9601)}, false, {pdu(20, 'z')}, "PDU length too big"},
      {"length below the header", {pdu(20, 'x', 5) + pdu(40)}, false, {}, "PDU length too small"},
      {"peer closes mid-PDU", {pdu(25), pdu(100).substr(0, 50)}, true, {pdu(25)}, "Connection closed by peer"},
      {"150 PDUs at once", {burst}, false, burstPdus, ""},
  };
}

TEST_F(TcpPduPamTest, FramingInEveryReadMode) {
  for (int mode = 0; mode < 8; ++mode) {  // every mix of the three switches
    bool const edge = mode & 1, ahead = mode & 2, xored = mode & 4;
    for (auto const& c : framingCases()) {
      SCOPED_TRACE(std::string(c.name) + (edge ? " edge" : " level") + (ahead ? " read-ahead" : "") +
                   (xored ? " scrambled" : ""));
      Pair pair;
      auto pam = endpoint(pair.ours, edge, xored);
      pam->readAheadIs(ahead);
      Owner owner(pam);
      pam->enabledIs(true);
      for (auto const& chunk : c.chunks) {
        pair.send(xored ? XorPduPam::scrambled(chunk) : chunk);
        turns(2);
      }
      if (c.closeAfter) {
        close(pair.peer);
        pair.peer = -1;
      }
      am_.runUntil([&] { return owner.got.size() >= c.pdus.size() && (!*c.error || !owner.error.empty()); }, 2);
      turns();
      EXPECT_EQ(owner.got.size(), c.pdus.size());
      EXPECT_TRUE(owner.got == c.pdus);
      EXPECT_EQ(owner.error, c.error);
      EXPECT_EQ(pam->rxErrors(), *c.error ? 1u : 0u);
    }
  }
}

// The step results a derived endpoint driving its own reads sees: read on
// while the socket may hold more, wait once a short read drained it (the
// framing table does not notice an extra read that finds nothing).
TEST_F(TcpPduPamTest, ReadStepResultsOneByOne) {
  Pair pair;
  auto pam = endpoint(pair.ours, false);
  pam->enabledIs(true);
  pam->tcpPduFdSm()->fd()->enabledIs(false);  // the test drives the steps
  pair.send(pdu(50).substr(0, 30));
  turns();
  EXPECT_EQ(pam->readFromSocket().result, TcpPduPamReadResult::readMoreData_);
  EXPECT_EQ(pam->readFromSocket().result, TcpPduPamReadResult::waitForMoreData_);
  pair.send(pdu(50).substr(30));
  turns();
  EXPECT_EQ(pam->readFromSocket().result, TcpPduPamReadResult::fullPduRead_);
  EXPECT_EQ(pam->rxPktHolderShadow()->stringValue().str(), pdu(50));
}

// A send buffer a reader drains slowly: writes go out in parts and must
// arrive whole and in order.
TEST_F(TcpPduPamTest, PartialWritesCompleteInOrder) {
  Pair pair;
  pair.smallSendBuffer();
  fcntl(pair.peer, F_SETFL, O_NONBLOCK);
  auto pam = endpoint(pair.ours, false);
  pam->enabledIs(true);
  std::string expected, received;
  int partials = 0, sent = 0;
  F64 const deadline = Brio::monotonicNow() + 10;
  while (Brio::monotonicNow() < deadline && (sent < 40 || received.size() < expected.size() || !pam->writable())) {
    if (pam->writable() && sent < 40) {
      std::string bytes = pdu(3000 + 97 * sent, static_cast<char>('A' + sent % 26));
      Brio::Ptr<Pkt> pkt = pktOf(sent % 2 ? bytes.substr(20) : bytes);
      if (sent % 2) {  // the header as private head bytes: two iovecs
        pkt->newPrivateHeadData(20);
        std::memcpy(pkt->privateBufferData(), bytes.data(), 20);
      }
      pam->txPktIs(pkt);
      pkt->rawByteIs(25, '!');  // the caller may reuse its packet at once
      expected += bytes;
      ++sent;
      partials += !pam->writable();
    }
    char buf[700];  // the slow reader
    ssize_t n = recv(pair.peer, buf, sizeof buf, 0);
    if (n > 0) received.append(buf, static_cast<std::size_t>(n));
    am_.runOnce(0.0005);
  }
  EXPECT_EQ(sent, 40);
  EXPECT_GE(partials, 2);
  EXPECT_TRUE(received == expected) << "bytes reordered or lost";
}

TEST_F(TcpPduPamTest, SendInvariantsDeathTest) {
  Pair pair;
  pair.smallSendBuffer();
  auto pam = endpoint(pair.ours, false);
  pam->enabledIs(true);
  EXPECT_DEATH(pam->txPktIs(pktOf(pdu(9601))), "pkt->sharedBuffer\\(\\)->dataBytes\\(\\) <= maxPduLength\\(\\)");
  Brio::Ptr<Pkt> pkt = pktOf(pdu(9000));
  while (pam->writable()) pam->txPktIs(pkt);
  EXPECT_DEATH(pam->txPktIs(pkt), "!txPktHolderShadow\\(\\)");
  auto disabled = endpoint(dup(pair.ours), false);
  EXPECT_DEATH(disabled->txPktIs(pktOf(pdu(20))), "writable\\(\\)");
  auto noSocket = endpoint(-1, false);
  noSocket->enabledIs(true);
  EXPECT_DEATH(noSocket->keepaliveOptsIs(TcpKeepaliveOptions(1, 1, 1)), "keepaliveOpts\\(\\).enabled\\(\\) == false");
  auto plain = tcpPduPamFactory(tcpFileDescriptorFactory(dup(pair.ours), false),
                                tcpFileDescriptorEventRegistrationFactoryBrioc());
  EXPECT_DEATH(plain->readFromSocket(), "0 && \"Need to implement getRemainingLength in a derived class\"");
}

TEST_F(TcpPduPamTest, OneDirectionModesWaitForTheHalfDonePdu) {
  Pair pair;
  auto pam = endpoint(pair.ours, false);
  Owner owner(pam);
  pam->enabledIs(true);
  Glimmer::enable("Corvid", 5);
  Glimmer::Capture trace;
  // Half a PDU in: write-only waits for it.
  pair.send(pdu(60).substr(0, 40));
  turns();
  pam->enableModeIs(Mode::tcpEnableModeWriteOnly_);
  EXPECT_EQ(pam->enableMode(), Mode::tcpEnableModeReadWrite_);
  EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), Mode::tcpEnableModeWriteOnly_);
  EXPECT_TRUE(trace.contains("Waiting for rxPkt before setting enabled to tcpEnableModeWriteOnly"));
  Glimmer::enable("Corvid", -1);
  pair.send(pdu(60).substr(40) + pdu(20));  // completes it, and one more behind
  turns();
  EXPECT_EQ(owner.got, std::vector<std::string>{pdu(60)});
  EXPECT_EQ(pam->enableMode(), Mode::tcpEnableModeWriteOnly_);
  EXPECT_FALSE(pam->readable());  // nothing read in write-only

  // Back to both, then a half-written packet makes read-only wait.
  pam->enableModeIs(Mode::tcpEnableModeReadWrite_);
  turns();
  EXPECT_EQ(owner.got.size(), 2u);
  pair.smallSendBuffer();
  Brio::Ptr<Pkt> pkt = pktOf(pdu(9000));
  while (pam->writable()) pam->txPktIs(pkt);
  // No loop turn from here until the drain: the send stays half done.
  // A write-only request meanwhile, with data arriving: no new PDU is
  // started, and nothing trips.
  pam->enableModeIs(Mode::tcpEnableModeWriteOnly_);
  pair.send(pdu(30));
  usleep(20000);
  pam->handleReadable();
  EXPECT_TRUE(!pam->rxPktHolderShadow() || pam->rxPktHolderShadow()->bytes() == 0);  // nothing read
  pam->enableModeIs(Mode::tcpEnableModeReadOnly_);
  EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), Mode::tcpEnableModeReadOnly_);
  EXPECT_TRUE(am_.runUntil([&] {
    char buf[65536];
    recv(pair.peer, buf, sizeof buf, MSG_DONTWAIT);  // the peer drains the send
    return pam->enableMode() == Mode::tcpEnableModeReadOnly_;
  }, 5));
  EXPECT_FALSE(pam->writable());
  turns();
  EXPECT_EQ(owner.got.back(), pdu(30));
}

TEST_F(TcpPduPamTest, KeepaliveSettingsReadBack) {
  Pair pair;
  auto pam = endpoint(pair.ours, false);
  auto opt = [&](int level, int name) {
    int v = -1;
    socklen_t len = sizeof v;
    getsockopt(pair.ours, level, name, &v, &len);
    return v;
  };
  pam->keepaliveOptsIs(TcpKeepaliveOptions(30, 5, 4));  // applied once enabled
  EXPECT_EQ(opt(SOL_SOCKET, SO_KEEPALIVE), 0);
  pam->enabledIs(true);
  struct Case {
    TcpKeepaliveOptions opts;
    int keepalive, idle, interval, count;
  } const cases[] = {
      {{30, 5, 4}, 1, 30, 5, 4},
      {{600, 60, 9}, 1, 600, 60, 9},
      {{600, 0, 9}, 0, 600, 60, 9},  // any zero field switches keepalive off
  };
  for (auto const& c : cases) {
    pam->keepaliveOptsIs(c.opts);
    EXPECT_EQ(opt(SOL_SOCKET, SO_KEEPALIVE), c.keepalive) << c.opts;
    EXPECT_EQ(opt(IPPROTO_TCP, TCP_KEEPIDLE), c.idle) << c.opts;
    EXPECT_EQ(opt(IPPROTO_TCP, TCP_KEEPINTVL), c.interval) << c.opts;
    EXPECT_EQ(opt(IPPROTO_TCP, TCP_KEEPCNT), c.count) << c.opts;
  }
  pam->keepaliveOptsIs(TcpKeepaliveOptions(30, 5, 1000));  // above the kernel's limit of 127
  EXPECT_EQ(pam->tcpOptErrors(), 1u);
  EXPECT_EQ(pam->tcpOptErrorReason().str(), "setsockopt() error while setting TCP_KEEPCNT: Invalid argument");
}

TEST_F(TcpPduPamTest, ReadOnePktOnlyWaitsForTheOwner) {
  Pair pair;
  auto pam = endpoint(pair.ours, true);
  pam->readOnePktOnlyIs(true);
  Owner owner(pam);
  pam->enabledIs(true);
  pair.send(pdu(20, 'a') + pdu(20, 'b') + pdu(20, 'c'));
  turns();
  EXPECT_EQ(owner.got.size(), 1u);
  pam->rxResume();
  turns();
  EXPECT_EQ(owner.got.size(), 2u);
}

}  // namespace
