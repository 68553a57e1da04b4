// The activity loop: one ActivityManager per thread, built on epoll, and
// Clock, the entity that wakes its notifiees at a given time.
//
// Everything an agent does happens in handlers the loop calls: a Clock's
// notifiees when its wake time has come, a FileDescriptor's notifiees when
// the descriptor is readable or writable. Nothing here takes a lock.
//
// The manager of a thread is the last one constructed on it that is still
// alive (a stack: constructing one makes it current, destroying it restores
// the previous one); current() makes a real-time one on first use when there
// is none. Clocks and descriptors attach to the current manager when made
// and must not outlive it.
//
// Time: now() is monotonic seconds. A manager built with TimeSource::manual
// keeps its own time, which only advanceTime() moves; tests drive retry,
// backoff and timeout logic that way, in milliseconds of real time.
// Brio::now() answers the current manager's time, so code under test sees the
// manual time.
//
// One turn of the loop (runOnce): fire the clocks that are due, then wait in
// epoll_wait and dispatch the events. The wait is a mere poll when a clock
// fired or is still due, so callers re-check their condition at once.
// A clock armed during a handler pass for a time already reached fires on the
// next turn, never inside the pass that armed it, so a handler that keeps
// re-arming for the past cannot starve the loop.
#pragma once

#include <Brio/Entity.h>
#include <Brio/IndexedHeap.h>
#include <Brio/Types.h>

#include <functional>
#include <limits>
#include <vector>

namespace Brio {

class ActivityManager;
class FileDescriptor;

constexpr F64 never = std::numeric_limits<F64>::infinity();

// Monotonic seconds (CLOCK_MONOTONIC), regardless of any manager.
F64 monotonicNow();
// The current thread's manager's time (manual or monotonic).
F64 now();

// A wake-up time on the loop. timeMinIs(t) arms it (never disarms it); when
// the manager's time reaches t the clock disarms itself, then calls
// handleWakeup() of its notifiees once. Re-arm from the handler for periodic
// work. Arming for the past fires on the next turn.
class Clock : public Entity {
 public:
  class Notifiee : public EntityNotifiee<Clock> {
   public:
    virtual void handleWakeup() {}

   protected:
    using EntityNotifiee<Clock>::EntityNotifiee;
  };

  static Ptr<Clock> clockFactory(String name);

  F64 timeMin() const { return timeMin_; }
  void timeMinIs(F64 t);
  ActivityManager* manager() const { return manager_; }

 protected:
  explicit Clock(String name);
  ~Clock() override;

 private:
  friend class ActivityManager;
  void wakeup();

  ActivityManager* manager_;
  F64 timeMin_ = never;
  F64 armedAt_ = 0;     // the manager's time when armed
  U64 sequence_ = 0;    // arming order, for ties and for the pass rule
 public:
  std::size_t heapIndex_ = static_cast<std::size_t>(-1);  // owned by the manager's heap
};

class ActivityManager {
 public:
  enum class TimeSource { real, manual };

  explicit ActivityManager(TimeSource source = TimeSource::real);
  ~ActivityManager();
  ActivityManager(ActivityManager const&) = delete;
  ActivityManager& operator=(ActivityManager const&) = delete;

  // The thread's current manager, made (real time) on first use.
  static ActivityManager* current();

  TimeSource timeSource() const { return source_; }
  F64 now() const;

  // Runs turns until stop() is called (from a handler).
  void run();
  // Runs turns until predicate() holds or timeoutSeconds of real time pass;
  // returns the predicate's last answer.
  bool runUntil(std::function<bool()> const& predicate, F64 timeoutSeconds);
  // One turn, waiting at most maxWaitSeconds (real time) for descriptors.
  void runOnce(F64 maxWaitSeconds);
  void stop() { stopped_ = true; }

  // Manual time only: moves the time forward by `seconds` and fires every
  // clock that became due, in order of wake time, each with now() equal to
  // its wake time.
  void advanceTime(F64 seconds);

  // Clocks armed, and descriptors registered with epoll.
  std::size_t clocks() const { return clocks_.size(); }
  std::size_t descriptors() const { return slots_.size() - freeSlots_.size(); }

 private:
  friend class Clock;
  friend class FileDescriptor;

  struct ClockOrder {
    bool operator()(Clock const& a, Clock const& b) const {
      return a.timeMin_ < b.timeMin_ || (a.timeMin_ == b.timeMin_ && a.sequence_ < b.sequence_);
    }
  };

  void clockArm(Clock* c);
  void clockDisarm(Clock* c) { clocks_.erase(c); }
  // Fires the clocks due at or before `until` (advancing manual time to each
  // one's wake time when `advance`); returns how many fired.
  std::size_t fireDueClocks(F64 until, bool advance);
  bool clockDue() const;

  // epoll registration of descriptors; returns 0 or an errno value.
  int fdUpdate(FileDescriptor* fd);
  void fdDeregister(FileDescriptor* fd);
  void dispatch(U64 token, U32 events);

  TimeSource source_;
  F64 manualNow_ = 0;
  int epfd_ = -1;
  bool stopped_ = false;
  U64 armSequence_ = 0;
  ActivityManager* previous_ = nullptr;
  IndexedHeap<Clock, &Clock::heapIndex_, ClockOrder> clocks_;
  struct Slot {
    FileDescriptor* fd = nullptr;
    U32 generation = 0;
  };
  std::vector<Slot> slots_;
  std::vector<U32> freeSlots_;
};

}  // namespace Brio
