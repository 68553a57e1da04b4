#include <Brio/ActivityManager.h>
#include <Quay/TimerWheel.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Brio::ActivityManager;
using Quay::TimerWheel;

TEST(TimerWheel, HandlerMayRearmItselfAndCancelOthers) {
  ActivityManager am(ActivityManager::TimeSource::manual);
  auto wheel = TimerWheel::timerWheelFactory();
  std::vector<std::string> log;
  std::unique_ptr<TimerWheel::Timer> victim;
  TimerWheel::Timer retry(wheel, [&] {
    log.push_back("retry@" + std::to_string(static_cast<int>(Brio::now())));
    if (Brio::now() < 4) retry.expiryIs(Brio::now() + 2);
    victim.reset();
  });
  victim = std::make_unique<TimerWheel::Timer>(wheel, [&] { log.push_back("victim"); });
  retry.expiryIs(0);
  victim->expiryIs(0);
  am.advanceTime(10);
  EXPECT_EQ(log, (std::vector<std::string>{"retry@0", "retry@2", "retry@4"}));
}

TEST(TimerWheel, ZeroDelayRearmFromHandlerWaitsForTheNextTurn) {
  ActivityManager am(ActivityManager::TimeSource::manual);
  auto wheel = TimerWheel::timerWheelFactory();
  int fired = 0;
  TimerWheel::Timer t(wheel, [&] {
    if (++fired < 5) t.expiryIs(Brio::now());
  });
  t.expiryIs(1);
  am.advanceTime(1);
  EXPECT_EQ(fired, 1);
  am.runOnce(0);
  EXPECT_EQ(fired, 2);
}

TEST(TimerWheel, ManyTimersFireInSortedOrderAgainstAModel) {
  ActivityManager am(ActivityManager::TimeSource::manual);
  auto wheel = TimerWheel::timerWheelFactory();
  std::mt19937 rng(42);
  std::vector<double> fired;
  std::vector<std::unique_ptr<TimerWheel::Timer>> timers;
  std::vector<double> expected;
  for (int i = 0; i < 2000; ++i) {
    timers.push_back(std::make_unique<TimerWheel::Timer>(wheel, [&] { fired.push_back(Brio::now()); }));
    double t = std::uniform_int_distribution<int>(1, 1000)(rng) / 10.0;
    timers.back()->expiryIs(t);
    if (i % 3 == 0) {
      timers.back()->cancel();
    } else if (i % 3 == 1) {
      t += 5;
      timers.back()->expiryIs(t);
      expected.push_back(t);
    } else {
      expected.push_back(t);
    }
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(wheel->timers(), expected.size());
  am.advanceTime(200);
  EXPECT_EQ(fired, expected);
  for (auto const& t : timers) EXPECT_TRUE(!t->running() && t->expiry() == Brio::never);
}

}  // namespace
