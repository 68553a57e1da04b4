#include <Brio/ActivityManager.h>
#include <Corvid/DatagramPam.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/NetnsScope.h"
#include "support/PacketPeer.h"

namespace {

using Corvid::DatagramPam;
using Corvid::IpAddr;

IpAddr const localhost(127, 0, 0, 1);

// An owner as agents write them: drains on every readable change.
class Owner : public Corvid::DescriptorPam::Notifiee {
 public:
  explicit Owner(Brio::Ptr<DatagramPam> const& p) : Notifiee(p), pam_(p.ptr()) {}
  void handleReadableCount() override {
    while (auto pkt = pam_->rxPkt()) {
      got.push_back(pkt->stringValue().str());
      sourcePort = pam_->rxSourcePort();
    }
  }
  std::vector<std::string> got;
  U16 sourcePort = 0;

 private:
  DatagramPam* pam_;
};

using Peer = CorvidTest::UdpPeer;

class DatagramPamTest : public ::testing::Test {
 protected:
  void SetUp() override { CORVID_REQUIRE_NETNS(ns_); }
  CorvidTest::NetnsScope ns_;
  Brio::ActivityManager am_;
};

TEST_F(DatagramPamTest, DatagramsReachTheOwnerThroughTheLoopAnEmptyOneIsAnErrorAndAVanishedPeerIsNone) {
  auto pam = DatagramPam::datagramPamFactory("udp", localhost, 0);
  Owner owner(pam);
  pam->enabledIs(true);
  ASSERT_TRUE(pam->enabled()) << pam->reason();
  ASSERT_NE(pam->boundPort(), 0);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 1000; ++i) ASSERT_FALSE(pam->rxPkt());  // EAGAIN every time, quietly
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(pam->rxErrors() + pam->rxDrops(), 0u);
  Peer peer;
  for (char const* d : {"one", "", "two"}) peer.sendTo(pam->boundPort(), d);
  EXPECT_TRUE(am_.runUntil([&] { return owner.got.size() == 2; }, 2));
  EXPECT_EQ(owner.got, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(owner.sourcePort, peer.port);
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_EQ(pam->reason(), Brio::String("read from tap socket returned 0"));
  // The port unreachable errors a vanished peer's address sends back disturb nothing.
  U16 gonePort;
  {
    Peer gone;
    gonePort = gone.port;
  }
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs("anyone?", false);
  pam->txDestinationIs(localhost, gonePort);
  for (int i = 0; i < 3; ++i) pam->txPktIs(pkt);
  peer.sendTo(pam->boundPort(), "still here");
  EXPECT_TRUE(am_.runUntil([&] { return owner.got.size() == 3; }, 2));
  EXPECT_EQ(pam->txErrors(), 0u);
  EXPECT_EQ(pam->rxErrors(), 1u);
}

TEST_F(DatagramPamTest, TransmitReachesThePeerAndCountsWhatItCannotSend) {
  auto pam = DatagramPam::datagramPamFactory("udp", localhost, 0);
  Peer peer;
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs("reply", false);
  pam->txDestinationIs(localhost, peer.port);
  pam->txPktIs(pkt);  // disabled
  EXPECT_EQ(pam->txDrops(), 1u);
  pam->enabledIs(true);
  pam->txPktIs(pkt);
  EXPECT_EQ(peer.receive(), "reply");
  testing::internal::CaptureStderr();
  pam->txDestinationIs(IpAddr(255, 255, 255, 255), 9);  // refused without SO_BROADCAST
  pam->txPktIs(pkt);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error sending pkt:13 Permission denied\n");
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->txErrno(), static_cast<U32>(EACCES));
}

TEST_F(DatagramPamTest, EnableCyclesAndAFailedEnableLeakNoDescriptor) {
  int before = CorvidTest::openDescriptors();
  {
    auto pam = DatagramPam::datagramPamFactory("udp", localhost, 0);
    for (int i = 0; i < 5; ++i) {
      pam->enabledIs(true);
      pam->enabledIs(false);
    }
    pam->enabledIs(true);
    auto foreign = DatagramPam::datagramPamFactory("udp", IpAddr(192, 0, 2, 1), 0);  // not ours
    foreign->enabledIs(true);
    EXPECT_FALSE(foreign->enabled());
    EXPECT_EQ(foreign->openErrno(), EADDRNOTAVAIL);
    EXPECT_EQ(foreign->reason(), Brio::String("bind: Cannot assign requested address"));
  }
  EXPECT_EQ(CorvidTest::openDescriptors(), before);
}

}  // namespace
