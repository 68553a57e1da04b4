#include <Corvid/PktSocket.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

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
    if (kept) {
      EXPECT_EQ(kept->stringValue(), keptText);
    }
  }
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
