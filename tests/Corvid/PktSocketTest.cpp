#include <Corvid/PktSocket.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

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

// The sender's port and the quiet empty read are DatagramPamTest's checks.
TEST_F(PktSocketTest, ReceiveCutsALongDatagramAndSendGathersThePrivateHeadIntoOne) {
  Udp udp, peer;
  U16 port = udp.port;
  auto s = pktSocket(udp);
  peer.sendTo(port, std::string(2000, 'z'));
  auto in = s->recvPkt(nullptr);
  ASSERT_TRUE(in);
  EXPECT_EQ(in->bytes(), 1536u);
  auto out = Corvid::globalPktManager()->newPkt();
  out->stringValueIs("payload", false);
  out->newPrivateHeadData(4);
  for (U32 i = 0; i < 4; ++i) out->rawByteIs(i, static_cast<U8>('A' + i));
  ASSERT_EQ(out->ioVecCount(), 2u);
  EXPECT_EQ(s->sendPkt(out, loopback(peer.port)), 11);
  EXPECT_EQ(peer.receive(), "ABCDpayload");
}

// The send failure's line and errno are DatagramPamTest's transmit checks.
TEST_F(PktSocketTest, ReadFailureWritesTheErrorLineAndRaisesErrno) {
  auto s = Brio::makePtr<PktSocket>("test");
  s->descriptorIs(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));  // never connected
  testing::internal::CaptureStderr();
  EXPECT_THAT([&] { s->recvPkt(nullptr); },
              testing::Throws<Brio::ErrnoException>(testing::Property(&Brio::ErrnoException::errorNumber, ENOTCONN)));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), " error is  107 Transport endpoint is not connected\n");
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
  sockaddr_in silent = loopback(9);
  inet_pton(AF_INET, "198.51.100.77", &silent.sin_addr);
  testing::internal::CaptureStderr();
  int result = 0;
  for (int i = 0; i < 200 && result >= 0; ++i) result = s->sendPkt(pkt, silent);
  EXPECT_LT(result, 0);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
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
