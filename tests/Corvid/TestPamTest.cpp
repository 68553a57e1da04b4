// TestPam, and through it the enable/disable life every descriptor endpoint
// shares.
#include <Brio/ActivityManager.h>
#include <Corvid/TestPam.h>
#include <gtest/gtest.h>

namespace {

using Corvid::Pkt;
using Corvid::TestPam;

Brio::Ptr<Pkt> packetWith(char const* text) {
  auto p = Corvid::globalPktManager()->newPkt();
  p->stringValueIs(text, false);
  return p;
}

// An owner as agents write them: drains the endpoint on every readable change.
class Drainer : public Corvid::DescriptorPam::Notifiee {
 public:
  explicit Drainer(Brio::Ptr<TestPam> const& p) : Notifiee(p) {}
  void handleReadableCount() override {
    while (auto pkt = notifier()->rxPkt()) got.push_back(pkt->stringValue().str());
  }
  void handleEnabled() override { ++enabledChanges; }
  std::vector<std::string> got;
  int enabledChanges = 0;
};

TEST(TestPam, QueuedPacketsReachTheOwnerThroughTheLoopInOrder) {
  Brio::ActivityManager am;
  auto pam = TestPam::testPamFactory("test");
  Drainer owner(pam);
  pam->rxPktEnq(packetWith("early"));  // queued while disabled
  pam->enabledIs(true);
  EXPECT_EQ(owner.enabledChanges, 1);
  EXPECT_EQ(owner.got, (std::vector<std::string>{"early"}));  // the first pass of PamFdSm
  pam->rxPktEnq(packetWith("a"));
  pam->rxPktEnq(packetWith("b"));
  EXPECT_TRUE(am.runUntil([&] { return owner.got.size() == 3; }, 2));
  EXPECT_EQ(owner.got, (std::vector<std::string>{"early", "a", "b"}));
}

TEST(TestPam, BulkReceiveHandsTheBatchOutInOrderAndTransmitKeepsPacketsOnlyWhileEnabled) {
  Brio::ActivityManager am;
  auto pam = TestPam::testPamFactory("test");
  pam->txPktIs(packetWith("lost"));
  EXPECT_EQ(pam->txDrops(), 1u);
  pam->enabledIs(true);
  for (auto t : {"1", "2", "3"}) pam->rxPktEnq(packetWith(t));
  EXPECT_EQ(pam->rxPktBulk(), 3);
  EXPECT_EQ(pam->batchQueued(), 3u);
  std::string order;
  while (auto p = pam->rxPkt()) order += p->stringValue().str();
  EXPECT_EQ(order, "123");
  EXPECT_EQ(pam->batchQueued(), 0u);
  pam->txPktIs(packetWith("x"));
  pam->txPktIs(packetWith("y"));
  EXPECT_EQ(pam->txPkt()->stringValue(), Brio::String("y"));
  EXPECT_EQ(pam->txPktDeq()->stringValue(), Brio::String("x"));
  EXPECT_EQ(pam->txPktDeq()->stringValue(), Brio::String("y"));
  EXPECT_FALSE(pam->txPktDeq());
}

}  // namespace
