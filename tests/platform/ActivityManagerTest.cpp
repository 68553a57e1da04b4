#include <Brio/ActivityManager.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Brio::ActivityManager;
using Brio::Clock;

class Waker : public Clock::Notifiee {
 public:
  Waker(Brio::Ptr<Clock> const& c, std::vector<std::string>* log, std::string name)
      : Notifiee(c), log_(log), name_(std::move(name)) {}
  void handleWakeup() override {
    log_->push_back(name_ + "@" + std::to_string(static_cast<int>(Brio::now() * 1000)));
    if (action) action();
  }
  std::function<void()> action;

 private:
  std::vector<std::string>* log_;
  std::string name_;
};

using Log = std::vector<std::string>;

class ManualTime : public ::testing::Test {
 protected:
  ActivityManager am{ActivityManager::TimeSource::manual};
  Log log;
};

TEST_F(ManualTime, DueClocksFireInTimeOrderThenArmingOrder) {
  auto c1 = Clock::clockFactory("c1"), c2 = Clock::clockFactory("c2"), c3 = Clock::clockFactory("c3");
  Waker w1(c1, &log, "c1"), w2(c2, &log, "c2"), w3(c3, &log, "c3");
  c1->timeMinIs(3.0);
  c2->timeMinIs(1.0);
  c3->timeMinIs(2.0);
  am.advanceTime(2.5);
  EXPECT_EQ(log, (Log{"c2@1000", "c3@2000"}));
  EXPECT_EQ(am.now(), 2.5);
  EXPECT_EQ(c2->timeMin(), Brio::never);
  c3->timeMinIs(3.0);
  c2->timeMinIs(9.0);
  c2->timeMinIs(3.0);  // re-armed last: fires after the others due at 3
  am.advanceTime(10);
  EXPECT_EQ(log, (Log{"c2@1000", "c3@2000", "c1@3000", "c3@3000", "c2@3000"}));
}

TEST_F(ManualTime, ClockSetToThePastFiresOnTheNextTurnNotInsideItsOwnPass) {
  auto c = Clock::clockFactory("past");
  Waker w(c, &log, "p");
  int rearms = 0;
  w.action = [&] {
    if (++rearms < 3) c->timeMinIs(Brio::now() - 5);  // the past
  };
  am.advanceTime(10);
  c->timeMinIs(-1);
  am.advanceTime(0);
  EXPECT_EQ(log.size(), 1u);
  for (std::size_t const fired : {2u, 3u, 3u}) {  // one per turn, until it stops re-arming
    am.runOnce(0);
    EXPECT_EQ(log.size(), fired);
  }
}

TEST_F(ManualTime, DisarmedDestroyedOrDestroyedByAnotherHandlerClocksNeverFire) {
  auto a = Clock::clockFactory("a"), b = Clock::clockFactory("b"), c = Clock::clockFactory("c");
  Waker wa(a, &log, "a");
  auto wb = std::make_unique<Waker>(b, &log, "b");
  wa.action = [&] {
    wb.reset();
    b = nullptr;
  };
  {
    auto gone = Clock::clockFactory("gone");
    Waker wg(gone, &log, "gone");
    gone->timeMinIs(1);
  }
  Waker wc(c, &log, "c");
  c->timeMinIs(1);
  c->timeMinIs(Brio::never);
  a->timeMinIs(1);
  b->timeMinIs(1);
  EXPECT_EQ(am.clocks(), 2u);
  am.advanceTime(5);
  EXPECT_EQ(log, (Log{"a@1000"}));
}

TEST_F(ManualTime, StopFromHandlerEndsRun) {
  auto c = Clock::clockFactory("stopper");
  Waker w(c, &log, "s");
  w.action = [&] { am.stop(); };
  c->timeMinIs(0);
  am.run();
  EXPECT_EQ(log.size(), 1u);
}

TEST(ActivityManager, NestedManagerIsCurrentUntilDestroyed) {
  ActivityManager outer(ActivityManager::TimeSource::manual);
  outer.advanceTime(7);
  {
    ActivityManager inner(ActivityManager::TimeSource::manual);
    EXPECT_EQ(ActivityManager::current(), &inner);
    EXPECT_EQ(Brio::now(), 0);
  }
  EXPECT_EQ(ActivityManager::current(), &outer);
  EXPECT_EQ(Brio::now(), 7);
}

}  // namespace
