#include <Quay/TimerWheel.h>

namespace Quay {

TimerWheel::Timer::Timer(Brio::Ptr<TimerWheel> wheel, std::function<void()> handler)
    : wheel_(std::move(wheel)), handler_(std::move(handler)) {}

TimerWheel::Timer::~Timer() { wheel_->disarm(this); }

void TimerWheel::Timer::expiryIs(F64 t) {
  if (t == Brio::never) {
    wheel_->disarm(this);
  } else {
    wheel_->arm(this, t);
  }
}

Brio::Ptr<TimerWheel> TimerWheel::timerWheelFactory(Brio::String name) {
  return Brio::Ptr<TimerWheel>(new TimerWheel(std::move(name)));
}

TimerWheel::TimerWheel(Brio::String name)
    : clock_(Brio::Clock::clockFactory(std::move(name))), reactor_(clock_, this) {}

TimerWheel::~TimerWheel() = default;

void TimerWheel::arm(Timer* t, F64 expiry) {
  if (firing_) std::erase(skipped_, t);
  heap_.erase(t);
  t->expiry_ = expiry;
  t->sequence_ = ++sequence_;
  heap_.push(t);
  clockUpdate();
}

void TimerWheel::disarm(Timer* t) {
  if (firing_) std::erase(skipped_, t);  // a handler cancelled or destroyed a deferred entry
  if (!heap_.contains(t)) {
    t->expiry_ = Brio::never;
    return;
  }
  heap_.erase(t);
  t->expiry_ = Brio::never;
  clockUpdate();
}

void TimerWheel::clockUpdate() {
  if (firing_) return;  // fireDue sets the clock once it is done
  clock_->timeMinIs(nextExpiry());
}

void TimerWheel::fireDue() {
  // Entries armed during this pass for a time already reached wait for the
  // next turn of the loop, as clocks do.
  U64 const passStart = sequence_;
  F64 const at = now();
  firing_ = true;
  Brio::Ptr<TimerWheel> keep(this);
  skipped_.clear();
  while (Timer* t = heap_.top()) {
    if (t->expiry_ > at) break;
    if (t->sequence_ > passStart) {
      heap_.pop();
      skipped_.push_back(t);
      continue;
    }
    heap_.pop();
    t->expiry_ = Brio::never;
    t->handler_();
  }
  for (Timer* t : skipped_) {
    if (!heap_.contains(t) && t->expiry_ != Brio::never) heap_.push(t);
  }
  skipped_.clear();
  firing_ = false;
  clockUpdate();
}

}  // namespace Quay
