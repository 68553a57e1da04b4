#include <Brio/ActivityManager.h>
#include <Corvid/RawSocket.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

#include <string>

#include "support/NetnsScope.h"
#include "support/PacketPeer.h"

namespace {

using Corvid::IpSocket;

using CorvidTest::ipv4Frame;

// Matches a call that raises Brio::ErrnoException with `error`.
auto raises(int error) {
  return ::testing::Throws<Brio::ErrnoException>(::testing::Property(&Brio::ErrnoException::errorNumber, error));
}

class RawSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    ASSERT_TRUE(ns_.vethPair("cv0", "cv1"));
    manager_ = Corvid::RawSocketManagerFactory();
  }
  CorvidTest::NetnsScope ns_;
  Brio::Ptr<Corvid::RawSocket::Manager> manager_;
};

TEST_F(RawSocketTest, MissingInterfaceFailsWithEnodevAndKeepsOnlyTheQuerySocket) {
  Brio::ActivityManager::current();  // its epoll descriptor is not the socket's
  int before = CorvidTest::openDescriptors();
  EXPECT_THAT([&] { manager_->newEthSocket("eth", "cv-missing", Corvid::protocolAll); }, raises(ENODEV));
  // The interface query socket is deliberately never closed; the packet
  // socket itself is.
  EXPECT_EQ(CorvidTest::openDescriptors(), before + 1);
}

TEST_F(RawSocketTest, IpSocketForAllProtocolsOpensProtocol255AndHeaderInclusionIsSet) {
  struct Row {
    Corvid::Protocol protocol;
    IpSocket::Options options;
    U16 opened;
    int hdrincl;
  };
  // The kernel implies IP_HDRINCL for protocol 255 (IPPROTO_RAW) by itself.
  Row const rows[] = {{Corvid::protocolAll, 1, 255, 1}, {Corvid::protocolAll, 0, 255, 1}, {17, 1, 17, 1}, {253, 0, 253, 0}};
  for (auto const& r : rows) {
    auto s = manager_->newIpSocket("ip", r.protocol, r.options);
    EXPECT_EQ(s->ipProtocol(), r.opened);
    int protocol = -1, hdrincl = -1;
    socklen_t len = sizeof protocol;
    getsockopt(s->descriptor(), SOL_SOCKET, SO_PROTOCOL, &protocol, &len);
    len = sizeof hdrincl;
    getsockopt(s->descriptor(), IPPROTO_IP, IP_HDRINCL, &hdrincl, &len);
    EXPECT_EQ(protocol, r.opened);
    EXPECT_EQ(hdrincl, r.hdrincl);
  }
}

TEST_F(RawSocketTest, DeviceAndAddressBindingAndBufferSizesAreAsTheKernelKeepsThem) {
  ASSERT_EQ(CorvidTest::sh("ip addr add 198.51.100.1/24 dev cv0"), 0);
  auto s = manager_->newIpSocket("ip", Corvid::protocolAll, 0);
  auto bound = [&] {
    char name[IFNAMSIZ] = {};
    socklen_t len = sizeof name;
    getsockopt(s->descriptor(), SOL_SOCKET, SO_BINDTODEVICE, name, &len);
    return std::string(name);
  };
  s->deviceIs("cv0");
  EXPECT_EQ(bound(), "cv0");
  EXPECT_EQ(s->device(), Brio::String("cv0"));
  s->deviceIs("");
  EXPECT_EQ(bound(), "");
  EXPECT_THAT([&] { s->deviceIs("cv-missing"); }, raises(ENODEV));
  s->setSendBufSize(65536);
  s->setRecvBufSize(32768);
  EXPECT_EQ(s->sendBufSize(), 2u * 65536);  // the kernel doubles for its overhead
  EXPECT_EQ(s->recvBufSize(), 2u * 32768);
  EXPECT_NO_THROW(s->bind(Corvid::IpAddr(198, 51, 100, 1)));
  auto other = manager_->newIpSocket("ip", 253, 0);
  EXPECT_THAT([&] { other->bind(Corvid::IpAddr(198, 51, 100, 9)); }, raises(EADDRNOTAVAIL));
}

// Frames held by an 8 bit/s queue discipline, and datagrams waiting for a
// neighbour that never answers, keep their send-buffer charge, so a small
// buffer fills. An Ethernet socket then gives a negative result (EAGAIN)
// and raises nothing; a raw IP socket reports ENOBUFS, which is not EAGAIN
// and so is raised.
TEST_F(RawSocketTest, FullSendBuffer_EthSocketGivesNegativeResultAndRawIpRaisesEnobufs) {
  ASSERT_EQ(CorvidTest::sh("tc qdisc add dev cv0 root tbf rate 8bit burst 1600 limit 1000000 && "
                           "ip addr add 198.51.100.1/24 dev cv0"),
            0);
  auto eth = manager_->newEthSocket("eth", "cv0", Corvid::protocolAll);
  auto ip = manager_->newIpSocket("ip", 253, 0);
  eth->setSendBufSize(4096);
  ip->setSendBufSize(4096);
  auto frame = Corvid::globalPktManager()->newPkt(), payload = Corvid::globalPktManager()->newPkt();
  frame->stringValueIs(ipv4Frame(std::string(1200, 'p')), false);
  payload->stringValueIs(std::string(1200, 'p'), false);
  int result = 0, error = 0;
  for (int i = 0; i < 200 && result >= 0; ++i) result = eth->sendFrame(frame);
  EXPECT_LT(result, 0);
  EXPECT_EQ(errno, EAGAIN);
  for (int i = 0; i < 200 && !error; ++i) {
    try {
      ip->sendPkt(payload, Corvid::IpAddr(198, 51, 100, 77));
    } catch (Brio::ErrnoException const& e) {
      error = e.errorNumber();
    }
  }
  EXPECT_EQ(error, ENOBUFS);
}

TEST(RawSocketManager, DestructionWritesItsLine) {
  testing::internal::CaptureStderr();
  { auto m = Corvid::RawSocketManagerFactory(); }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "in RawSocket::~Manager()\n");
}

}  // namespace
