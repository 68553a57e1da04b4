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

 protected:
  QueuePam() : Pam("queue") {}
  void doGetRxPkt() override {
    if (queue.empty()) return;
    rxPktHolderIs(queue.front());
    queue.pop_front();
  }
};

class Observer : public Pam::Notifiee {
 public:
  explicit Observer(Brio::Ptr<Pam> const& p) : Notifiee(p) {}
  void handleWritableCount() override { ++writable; }
  int writable = 0;
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

TEST(PamDeathTest, BulkReceiveOnEndpointWithoutBatchesAborts) {
  auto pam = QueuePam::make();
  EXPECT_DEATH(pam->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
}

TEST(PamFdSm, ConstructionRaisesBothCountersByOneThenEachReadableEventAddsOne) {
  Brio::ActivityManager am;
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
  auto pam = QueuePam::make();
  Observer o(pam);
  auto fd = Brio::FileDescriptor::fileDescriptorFactory("pipe", fds[0]);
  auto sm = Corvid::PamFdSmIs(fd, pam.ptr());
  EXPECT_EQ(pam->readableCount(), 1u);
  EXPECT_EQ(pam->writableCount(), 1u);
  EXPECT_EQ(o.writable, 1);
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
