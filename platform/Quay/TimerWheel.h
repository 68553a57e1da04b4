// Quay::TimerWheel: many timers on one loop clock.
//
// A timer is an entry with an absolute expiry in seconds (on the activity
// manager's clock, Brio::now()) and a handler. Entries live in an indexed
// heap, so arming, re-arming and cancelling cost O(log n) and the wheel keeps
// a single Brio::Clock set to the earliest expiry. Due entries fire in order
// of expiry (ties in arming order); an entry is stopped before its handler
// runs, so the handler may re-arm it.
//
// A Timer belongs to its owner (usually a member of a reactor) and is
// cancelled when destroyed; it keeps its wheel alive. Cancelling a stopped
// timer does nothing.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/IndexedHeap.h>
#include <Brio/Ptr.h>

#include <functional>
#include <vector>

namespace Quay {

class TimerWheel : public Brio::PtrInterface {
 public:
  class Timer {
   public:
    Timer(Brio::Ptr<TimerWheel> wheel, std::function<void()> handler);
    ~Timer();
    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    // Absolute expiry in seconds; Brio::never while stopped.
    F64 expiry() const { return expiry_; }
    bool running() const { return heapIndex_ != npos; }
    // Arms (or re-arms) the timer for absolute time t; Brio::never stops it.
    void expiryIs(F64 t);
    void cancel() { expiryIs(Brio::never); }
    TimerWheel* wheel() const { return wheel_.ptr(); }

    std::size_t heapIndex_ = npos;  // owned by the wheel's heap

   private:
    friend class TimerWheel;
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
    Brio::Ptr<TimerWheel> wheel_;
    std::function<void()> handler_;
    F64 expiry_ = Brio::never;
    U64 sequence_ = 0;
  };

  static Brio::Ptr<TimerWheel> timerWheelFactory(Brio::String name = "TimerWheel");

  F64 now() const { return Brio::now(); }
  std::size_t timers() const { return heap_.size(); }
  // Expiry of the earliest running timer, Brio::never when none runs.
  F64 nextExpiry() const { return heap_.empty() ? Brio::never : heap_.top()->expiry_; }

 protected:
  explicit TimerWheel(Brio::String name);
  ~TimerWheel() override;

 private:
  struct Order {
    bool operator()(Timer const& a, Timer const& b) const {
      return a.expiry_ < b.expiry_ || (a.expiry_ == b.expiry_ && a.sequence_ < b.sequence_);
    }
  };
  class ClockReactor : public Brio::Clock::Notifiee {
   public:
    ClockReactor(Brio::Ptr<Brio::Clock> const& c, TimerWheel* w) : Notifiee(c), wheel_(w) {}
    void handleWakeup() override { wheel_->fireDue(); }

   private:
    TimerWheel* wheel_;
  };

  void arm(Timer* t, F64 expiry);
  void disarm(Timer* t);
  void fireDue();
  void clockUpdate();

  Brio::IndexedHeap<Timer, &Timer::heapIndex_, Order> heap_;
  Brio::Ptr<Brio::Clock> clock_;
  ClockReactor reactor_;
  U64 sequence_ = 0;
  bool firing_ = false;
  std::vector<Timer*> skipped_;  // due entries armed during the current pass
};

}  // namespace Quay
