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

using RxPath = EthDevicePam::RxPath;

class EthDevicePamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVID_REQUIRE_NETNS(ns_);
    ASSERT_TRUE(ns_.vethPair("cv0", "cv1"));
  }
  // An enabled endpoint on cv0 reading through `path`; the ring has 6 slots.
  Brio::Ptr<EthDevicePam> enabledPam(RxPath path, U32 batch = 8) {
    auto pam = EthDevicePam::ethDevicePamFactory("eth", "cv0");
    pam->rxPathIs(path);
    pam->ringFramesIs(6);
    pam->batchSizeIs(batch);
    pam->enabledIs(true);
    EXPECT_TRUE(pam->enabled()) << pam->reason();
    return pam;
  }
  CorvidTest::NetnsScope ns_;
  Brio::ActivityManager am_;
};

// On each receive path: batches in order across batch boundaries (and, on
// the ring, 20 frames wrapping 6 slots), then without an owner rxPkt alone
// one frame at a time, and a transmit an independent receiver sees.
TEST_F(EthDevicePamTest, EachPathDeliversInOrderReadsSinglyAndTransmits) {
  struct {
    RxPath path;
    U32 batch;
    int rounds, perRound;  // the ring's rounds fit its slots
  } const cases[] = {{RxPath::recvmmsg, 8, 1, 21}, {RxPath::ring, 3, 5, 4}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.path == RxPath::ring ? "ring" : "recvmmsg");
    auto pam = enabledPam(c.path, c.batch);
    PacketPeer peer("cv1");
    {
      BatchOwner owner(pam);
      std::vector<std::string> sent;
      for (int round = 0; round < c.rounds; ++round) {
        for (int i = 0; i < c.perRound; ++i) {
          sent.push_back(ipv4Frame("frame-" + std::to_string(round) + "-" + std::to_string(i)));
          peer.send(sent.back());
        }
        EXPECT_TRUE(am_.runUntil([&] { return owner.frames.size() >= sent.size(); }, 3)) << round;
      }
      EXPECT_EQ(owner.frames, sent);
    }
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

TEST_F(EthDevicePamTest, RingCutsAFrameLongerThanASlotToWhatFits) {
  auto pam = enabledPam(RxPath::ring);
  ASSERT_EQ(CorvidTest::sh("ip link set cv0 mtu 4000 && ip link set cv1 mtu 4000"), 0);
  std::string const big = ipv4Frame(std::string(EthDevicePam::ringFrameBytes, 'x'));
  PacketPeer("cv1").send(big);
  Brio::Ptr<Corvid::Pkt> pkt;
  EXPECT_TRUE(am_.runUntil([&] { return bool(pkt = pam->rxPkt()); }, 2));
  ASSERT_TRUE(pkt);
  EXPECT_LT(pkt->bytes(), EthDevicePam::ringFrameBytes);
  EXPECT_EQ(pkt->stringValue().str(), big.substr(0, pkt->bytes()));
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
