#include <Brio/ActivityManager.h>
#include <Corvid/Pam.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>

namespace {

using Corvid::Pam;
using Corvid::Pkt;

// The smallest endpoint: packets come from a queue the test fills.
class QueuePam : public Pam {
 public:
  static Brio::Ptr<QueuePam> make() { return Brio::Ptr<QueuePam>(new QueuePam); }
  std::deque<Brio::Ptr<Pkt>> queue;
  int readableHooks = 0;

 protected:
  QueuePam() : Pam("queue") {}
  void handleReadableCount() override { ++readableHooks; }
  void doGetRxPkt() override {
    if (queue.empty()) return;
    rxPktHolderIs(queue.front());
    queue.pop_front();
  }
};

class Observer : public Pam::Notifiee {
 public:
  explicit Observer(Brio::Ptr<Pam> const& p) : Notifiee(p) {}
  void handleReadableCount() override { ++readable; }
  void handleWritableCount() override { ++writable; }
  void handleSavedPacket(U32 const& i) override { saved.push_back(i); }
  int readable = 0;
  int writable = 0;
  std::vector<U32> saved;
};

TEST(Pam, RxPktReturnsNullWhenNothingWaitsAndNeverTheSamePacketTwice) {
  auto pam = QueuePam::make();
  EXPECT_FALSE(pam->rxPkt());
  auto p = Corvid::globalPktManager()->newPkt();
  pam->queue.push_back(p);
  EXPECT_EQ(pam->rxPkt(), p);
  EXPECT_FALSE(pam->rxPktHolder());
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(p->references(), 1u);  // the endpoint kept no reference
}

TEST(Pam, EqualCounterWritesNeitherHookNorNotify) {
  auto pam = QueuePam::make();
  Observer o(pam);
  pam->readableCountIs(5);
  pam->readableCountIs(5);
  EXPECT_EQ(pam->readableHooks, 1);
  EXPECT_EQ(o.readable, 1);
  pam->readableCountInc(2);
  EXPECT_EQ(pam->readableCount(), 7u);
  EXPECT_EQ(o.readable, 2);
}

TEST(Pam, CountersAndSavedPacketsStartEmptyAndCountAsTold) {
  auto pam = QueuePam::make();
  EXPECT_EQ(pam->txDrops() + pam->txErrors() + pam->rxErrors() + pam->rxDrops() + pam->txErrno(), 0u);
  EXPECT_FALSE(pam->txPkt());
  pam->txErrorsInc(3);
  pam->rxDropsIs(4);
  EXPECT_EQ(pam->txErrors(), 3u);
  EXPECT_EQ(pam->rxDrops(), 4u);
  EXPECT_EQ(pam->rxDropsHolder(), 4u);
  Observer o(pam);
  auto p = Corvid::globalPktManager()->newPkt();
  pam->savedPacketIs(7, p);
  pam->savedPacketRxIs(7, true);
  EXPECT_EQ(pam->savedPacket(7), p);
  EXPECT_TRUE(pam->savedPacketRx(7));
  pam->savedPacketDelAll();
  EXPECT_FALSE(pam->savedPacket(7));
  EXPECT_EQ(o.saved, (std::vector<U32>{7, 7}));
}

TEST(Pam, BaseTransmitKeepsTheLastPacket) {
  auto pam = QueuePam::make();
  auto p = Corvid::globalPktManager()->newPkt();
  pam->txPktIs(p);
  EXPECT_EQ(pam->txPkt(), p);
}

TEST(PamDeathTest, BulkReceiveOnEndpointWithoutBatchesAborts) {
  auto pam = QueuePam::make();
  EXPECT_DEATH(pam->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
}

TEST(PamFdSm, ConstructionRaisesBothCountersByExactlyOne) {
  auto pam = QueuePam::make();
  Observer o(pam);
  auto sm = Corvid::PamFdSmIs(nullptr, pam.ptr());
  EXPECT_EQ(pam->readableCount(), 1u);
  EXPECT_EQ(pam->writableCount(), 1u);
  EXPECT_EQ(o.readable, 1);
  EXPECT_EQ(o.writable, 1);
}

TEST(PamFdSm, EachReadableEventAddsOne) {
  Brio::ActivityManager am;
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
  auto pam = QueuePam::make();
  auto fd = Brio::FileDescriptor::fileDescriptorFactory("pipe", fds[0]);
  auto sm = Corvid::PamFdSmIs(fd, pam.ptr());
  EXPECT_EQ(pam->readableCount(), 1u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    U32 before = pam->readableCount();
    EXPECT_TRUE(am.runUntil([&] { return pam->readableCount() == before + 1; }, 2));
    am.runOnce(0.01);
    EXPECT_EQ(pam->readableCount(), before + 1);  // one per event, no repeats
  }
  sm = nullptr;
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  U32 before = pam->readableCount();
  am.runOnce(0.02);
  EXPECT_EQ(pam->readableCount(), before);  // dropping the reactor ends the events
  close(fds[1]);
}

}  // namespace
