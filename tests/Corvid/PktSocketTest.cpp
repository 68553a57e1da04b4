#include <Corvid/PktSocket.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/NetnsScope.h"
#include "support/PacketPeer.h"

namespace {

using Corvid::Pkt;
using Corvid::PktSocket;

using CorvidTest::loopback;
using Udp = CorvidTest::UdpPeer;

class PktSocketTest : public ::testing::Test {
 protected:
  void SetUp() override { CORVID_REQUIRE_NETNS(ns_); }
  // A PktSocket on a fresh non-blocking UDP socket.
  Brio::Ptr<PktSocket> pktSocket(Udp& udp) {
    auto s = Brio::makePtr<PktSocket>("test");
    s->descriptorIs(udp.release());
    s->fileDescriptor()->nonBlockingIs(true);
    return s;
  }
  CorvidTest::NetnsScope ns_;
};

TEST_F(PktSocketTest, ReceivesFromAnIndependentSenderTruncatesToTheBufferAndIsQuietWhenEmpty) {
  Udp udp, peer;
  U16 port = udp.port;
  auto s = pktSocket(udp);
  sockaddr_in from{};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(s->recvPkt(&from));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  peer.sendTo(port, "hello corvid");
  peer.sendTo(port, std::string(2000, 'z'));
  auto pkt = s->recvPkt(&from);
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->stringValue(), Brio::String("hello corvid"));
  EXPECT_EQ(ntohs(from.sin_port), peer.port);
  pkt = s->recvPkt(nullptr);
  ASSERT_TRUE(pkt);
  EXPECT_EQ(pkt->bytes(), 1536u);
}

// The packet of the previous read is read into again only when the owner
// dropped it and it is still as newPkt() makes it; otherwise whatever the
// owner kept must not change under it.
TEST_F(PktSocketTest, ReadsIntoThePreviousPacketOnlyWhenNothingElseCanSeeIt) {
  struct Row {
    char const* what;
    // What the owner does with the first packet; returns what it keeps.
    std::function<Brio::Ptr<Pkt>(Brio::Ptr<Pkt> const&)> use;
    bool reused;
  };
  auto const& manager = Corvid::globalPktManager();
  Row const rows[] = {
      {"dropped", [](auto const&) { return Brio::Ptr<Pkt>(); }, true},
      {"kept", [](auto const& p) { return p; }, false},
      {"shallow copy kept", [&](auto const& p) { return manager->newShallowCopy(p); }, false},
      {"private head bytes", [](auto const& p) { p->newPrivateHeadData(4); return Brio::Ptr<Pkt>(); }, false},
      {"begin offset", [](auto const& p) { p->beginOffsetIs(2); return Brio::Ptr<Pkt>(); }, false},
      {"separate tag", [](auto const& p) { p->newSeparateVlanTag(7, 0x8100); return Brio::Ptr<Pkt>(); }, false},
      {"buffer grown", [](auto const& p) { p->newSharedTailData(2000); return Brio::Ptr<Pkt>(); }, false},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.what);
    Udp udp, peer;
    U16 const port = udp.port;
    auto s = pktSocket(udp);
    peer.sendTo(port, "first");
    peer.sendTo(port, "second datagram");
    auto first = s->recvPkt(nullptr);
    ASSERT_TRUE(first);
    Pkt const* const firstAddress = first.ptr();
    Brio::Ptr<Pkt> const kept = row.use(first);
    Brio::String const keptText = kept ? kept->stringValue() : Brio::String();
    first = nullptr;
    auto second = s->recvPkt(nullptr);
    ASSERT_TRUE(second);
    EXPECT_EQ(second.ptr() == firstAddress, row.reused);
    EXPECT_EQ(second->stringValue(), Brio::String("second datagram"));
    EXPECT_EQ(second->firstIoVec(), 1);
    EXPECT_EQ(second->beginOffset(), 0);
    EXPECT_FALSE(second->tciPresent());
    EXPECT_EQ(second->maxSharedData(), manager->defaultBufferSize());
    if (kept) EXPECT_EQ(kept->stringValue(), keptText);
  }
}

TEST_F(PktSocketTest, ZeroLengthDatagramRaisesTheInternalException) {
  Udp udp, peer;
  U16 port = udp.port;
  auto s = pktSocket(udp);
  peer.sendTo(port, "");
  try {
    s->recvPkt(nullptr);
    FAIL() << "no exception";
  } catch (Brio::InternalException const& e) {
    EXPECT_STREQ(e.what(), "read from tap socket returned 0");
  }
}

TEST_F(PktSocketTest, ReadFailureWritesTheErrorLineAndRaisesErrno) {
  auto s = Brio::makePtr<PktSocket>("test");
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);  // never connected
  s->descriptorIs(fd);
  testing::internal::CaptureStderr();
  try {
    s->recvPkt(nullptr);
    FAIL() << "no exception";
  } catch (Brio::ErrnoException const& e) {
    EXPECT_EQ(e.errorNumber(), ENOTCONN);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), " error is  107 Transport endpoint is not connected\n");
}

TEST_F(PktSocketTest, PrivateHeadBytesGoOutWithTheSharedDataInOneDatagram) {
  Udp udp, peer;
  auto s = pktSocket(udp);
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs("payload", false);
  pkt->newPrivateHeadData(4);
  for (U32 i = 0; i < 4; ++i) pkt->rawByteIs(i, static_cast<U8>('A' + i));
  ASSERT_EQ(pkt->ioVecCount(), 2u);
  EXPECT_EQ(s->sendPkt(pkt, loopback(peer.port)), 11);
  EXPECT_EQ(peer.receive(), "ABCDpayload");
}

TEST_F(PktSocketTest, SendFailureWritesTheErrorLineAndRaisesErrno) {
  Udp udp;
  auto s = pktSocket(udp);
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs("x", false);
  sockaddr_in broadcast = loopback(9);
  broadcast.sin_addr.s_addr = htonl(INADDR_BROADCAST);  // refused without SO_BROADCAST
  testing::internal::CaptureStderr();
  try {
    s->sendPkt(pkt, broadcast);
    FAIL() << "no exception";
  } catch (Brio::ErrnoException const& e) {
    EXPECT_EQ(e.errorNumber(), EACCES);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error sending pkt:13 Permission denied\n");
}

TEST_F(PktSocketTest, FullSendBufferGivesNegativeResultSilently) {
  // Datagrams to a neighbour that never answers wait in the neighbour queue
  // with their send-buffer charge, so a small buffer fills up.
  ASSERT_TRUE(ns_.vethPair("cv0", "cv1"));
  ASSERT_EQ(CorvidTest::sh("ip addr add 198.51.100.1/24 dev cv0"), 0);
  auto s = Brio::makePtr<PktSocket>("unbound");
  s->descriptorIs(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  int small = 4096;
  setsockopt(s->descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string(1200, 'p'), false);
  sockaddr_in silent{};
  silent.sin_family = AF_INET;
  silent.sin_port = htons(9);
  inet_pton(AF_INET, "198.51.100.77", &silent.sin_addr);
  testing::internal::CaptureStderr();
  int result = 0;
  for (int i = 0; i < 200 && result >= 0; ++i) result = s->sendPkt(pkt, silent);
  EXPECT_LT(result, 0);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(PktSocketTest, DescriptorIsClosesThePreviousDescriptor) {
  Udp a, b;
  int first = a.fd;
  auto s = pktSocket(a);
  s->descriptorIs(b.release());
  EXPECT_EQ(fcntl(first, F_GETFD), -1);
}

TEST(PktSocketDeathTest, BlockingDescriptorIsAnAssertion) {
  CorvidTest::NetnsScope ns;
  CORVID_REQUIRE_NETNS(ns);
  Udp udp;
  auto s = Brio::makePtr<PktSocket>("blocking");
  s->descriptorIs(udp.release());
  EXPECT_DEATH(s->recvPkt(nullptr), "fileDescriptor_->nonBlocking\\(\\)");
}

}  // namespace
