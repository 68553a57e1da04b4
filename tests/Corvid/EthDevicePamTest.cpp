#include <Brio/ActivityManager.h>
#include <Corvid/EthDevicePam.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/NetnsScope.h"
#include "support/PacketPeer.h"

namespace {

using Corvid::EthDevicePam;
using CorvidTest::ipv4Frame;
using CorvidTest::PacketPeer;

// Reads in batches on every readable change, as a forwarding agent would.
class BatchOwner : public Corvid::DescriptorPam::Notifiee {
 public:
  explicit BatchOwner(Brio::Ptr<EthDevicePam> const& p) : Notifiee(p), pam_(p.ptr()) {}
  void handleReadableCount() override {
    while (S32 n = pam_->rxPktBulk()) {
      for (; n > 0; --n) frames.push_back(pam_->rxPkt()->stringValue().str());
      EXPECT_EQ(pam_->batchQueued(), 0u);
    }
  }
  std::vector<std::string> frames;

 private:
  EthDevicePam* pam_;
};

class EthDevicePamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    ASSERT_TRUE(ns_.vethPair("cv0", "cv1"));
  }
  CorvidTest::NetnsScope ns_;
  Brio::ActivityManager am_;
};

TEST_F(EthDevicePamTest, BatchesArriveInOrderAcrossBatchBoundaries) {
  auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
  pam->batchSizeIs(8);
  BatchOwner owner(pam);
  pam->enabledIs(true);
  ASSERT_TRUE(pam->enabled()) << pam->reason();
  PacketPeer peer("cv1");
  std::vector<std::string> sent;
  for (int i = 0; i < 21; ++i) {
    sent.push_back(ipv4Frame("frame-" + std::to_string(i)));
    peer.send(sent.back());
  }
  EXPECT_TRUE(am_.runUntil([&] { return owner.frames.size() >= sent.size(); }, 3));
  EXPECT_EQ(owner.frames, sent);
}

TEST_F(EthDevicePamTest, RingPathDeliversInOrderThroughTheLoopAndWrapsAround) {
  auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
  pam->rxPathIs(EthDevicePam::RxPath::ring);
  pam->ringFramesIs(6);
  pam->batchSizeIs(4);
  BatchOwner owner(pam);
  pam->enabledIs(true);
  ASSERT_TRUE(pam->enabled()) << pam->reason();
  EXPECT_EQ(pam->ringFrames(), 6u);
  PacketPeer peer("cv1");
  std::vector<std::string> sent;
  for (int round = 0; round < 5; ++round) {  // 20 frames through 6 slots
    for (int i = 0; i < 4; ++i) {
      sent.push_back(ipv4Frame("ring-" + std::to_string(round) + "-" + std::to_string(i)));
      peer.send(sent.back());
    }
    EXPECT_TRUE(am_.runUntil([&] { return owner.frames.size() == sent.size(); }, 3)) << round;
  }
  EXPECT_EQ(owner.frames, sent);
  std::size_t const big = EthDevicePam::ringFrameBytes;  // longer than a slot: cut to what fits
  ASSERT_EQ(CorvidTest::sh("ip link set cv0 mtu 4000 && ip link set cv1 mtu 4000"), 0);
  peer.send(ipv4Frame(std::string(big, 'x')));
  Brio::Ptr<Corvid::Pkt> pkt;
  EXPECT_TRUE(am_.runUntil([&] { return bool(pkt = pam->rxPkt()); }, 2));
  ASSERT_TRUE(pkt);
  EXPECT_LT(pkt->bytes(), big);
  EXPECT_EQ(pkt->stringValue().str(), ipv4Frame(std::string(big, 'x')).substr(0, pkt->bytes()));
}

TEST_F(EthDevicePamTest, RxPktAloneReadsOneFrameAtATimeAndTransmitReachesAnIndependentReceiver) {
  for (auto path : {EthDevicePam::RxPath::recvmmsg, EthDevicePam::RxPath::ring}) {
    auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
    pam->rxPathIs(path);
    pam->enabledIs(true);
    PacketPeer peer("cv1");
    peer.send(ipv4Frame("single"));
    Brio::Ptr<Corvid::Pkt> pkt;
    EXPECT_TRUE(am_.runUntil([&] { return bool(pkt = pam->rxPkt()); }, 2));
    ASSERT_TRUE(pkt);
    EXPECT_EQ(pkt->stringValue().str(), ipv4Frame("single"));
    EXPECT_FALSE(pam->rxPkt());
    auto out = Corvid::globalPktManager()->newPkt();
    out->stringValueIs(ipv4Frame("outbound"), false);
    pam->txPktIs(out);
    EXPECT_EQ(peer.receiveContaining("outbound"), ipv4Frame("outbound"));
    EXPECT_EQ(pam->txErrors() + pam->txDrops(), 0u);
  }
}

TEST_F(EthDevicePamTest, MissingInterfaceLeavesTheEndpointDisabledWithTheReason) {
  auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv-missing");
  pam->enabledIs(true);
  EXPECT_FALSE(pam->enabled());
  EXPECT_EQ(pam->openErrno(), ENODEV);
  EXPECT_EQ(pam->reason(), Brio::String("ioctl(SIOCGIFINDEX): No such device"));
}

TEST_F(EthDevicePamTest, EachEnableKeepsOnlyTheSocketsDeliberateQueryDescriptor) {
  auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
  pam->enabledIs(true);
  pam->enabledIs(false);
  int before = CorvidTest::openDescriptors();
  for (int i = 0; i < 3; ++i) {
    pam->enabledIs(true);
    ASSERT_TRUE(pam->enabled());
    pam->enabledIs(false);
  }
  // Every EthSocket leaves its interface-query socket open on purpose; the
  // packet socket itself closes with the endpoint.
  EXPECT_EQ(CorvidTest::openDescriptors(), before + 3);
}

TEST_F(EthDevicePamTest, InterfaceRemovedWhileEnabledIsCountedNotThrown) {
  auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
  BatchOwner owner(pam);
  pam->enabledIs(true);
  ASSERT_EQ(CorvidTest::sh("ip link del cv0"), 0);
  EXPECT_TRUE(am_.runUntil([&] { return pam->rxErrors() > 0; }, 3));
  EXPECT_NE(pam->reason().str().find("recvmmsg"), std::string::npos) << pam->reason();
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs(ipv4Frame("into the void"), false);
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txErrors() + pam->txDrops(), 1u);
  pam->enabledIs(false);
}

}  // namespace
