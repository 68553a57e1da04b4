#include <Brio/ActivityManager.h>

#include <Brio/Exception.h>
#include <Brio/FileDescriptor.h>
#include <Fennel/Fennel.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <ctime>

namespace Brio {

namespace {
thread_local ActivityManager* currentManager = nullptr;
thread_local ActivityManager* implicitManager = nullptr;

constexpr int kEventBatch = 64;

int waitMilliseconds(F64 seconds) {
  if (seconds <= 0) return 0;
  if (seconds > 3600) return 3600 * 1000;
  return static_cast<int>(std::ceil(seconds * 1000));
}
}  // namespace

F64 monotonicNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<F64>(ts.tv_sec) + static_cast<F64>(ts.tv_nsec) * 1e-9;
}

F64 now() { return currentManager ? currentManager->now() : monotonicNow(); }

// --- Clock ------------------------------------------------------------------

Ptr<Clock> Clock::clockFactory(String name) { return Ptr<Clock>(new Clock(std::move(name))); }

Clock::Clock(String name) : Entity(std::move(name)), manager_(ActivityManager::current()) {}

Clock::~Clock() { manager_->clockDisarm(this); }

void Clock::timeMinIs(F64 t) {
  if (t == timeMin_ && heapIndex_ != static_cast<std::size_t>(-1)) return;
  manager_->clockDisarm(this);
  timeMin_ = t;
  if (t != never) manager_->clockArm(this);
}

void Clock::wakeup() {
  timeMin_ = never;
  notify(&Notifiee::handleWakeup);
}

// --- ActivityManager ----------------------------------------------------------

ActivityManager::ActivityManager(TimeSource source) : source_(source) {
  epfd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epfd_ < 0) throw ErrnoException("epoll_create1", errno);
  if (source_ == TimeSource::manual) manualNow_ = 0;
  previous_ = currentManager;
  currentManager = this;
}

ActivityManager::~ActivityManager() {
  if (currentManager == this) currentManager = previous_;
  if (implicitManager == this) implicitManager = nullptr;
  ::close(epfd_);
}

ActivityManager* ActivityManager::current() {
  if (!currentManager) {
    // Made once per thread and kept for the thread's life: clocks and
    // descriptors may be made before anybody runs a loop.
    implicitManager = new ActivityManager(TimeSource::real);
  }
  return currentManager;
}

F64 ActivityManager::now() const { return source_ == TimeSource::manual ? manualNow_ : monotonicNow(); }

void ActivityManager::clockArm(Clock* c) {
  c->sequence_ = ++armSequence_;
  c->armedAt_ = now();
  clocks_.push(c);
}

bool ActivityManager::clockDue() const {
  Clock const* top = clocks_.top();
  return top && top->timeMin_ <= now();
}

std::size_t ActivityManager::fireDueClocks(F64 until, bool advance) {
  std::size_t fired = 0;
  U64 const passStart = armSequence_;
  std::vector<Ptr<Clock>> deferred;  // held: a handler may drop its clock
  while (Clock* c = clocks_.top()) {
    if (c->timeMin_ > until) break;
    clocks_.pop();
    if (c->sequence_ > passStart && c->timeMin_ <= c->armedAt_) {
      deferred.push_back(c);  // armed for the past during this pass
      continue;
    }
    if (advance && c->timeMin_ > manualNow_) manualNow_ = c->timeMin_;
    Ptr<Clock> keep(c->references() ? c : nullptr);
    c->wakeup();
    ++fired;
  }
  for (auto const& c : deferred) {
    if (!decltype(clocks_)::contains(c.ptr()) && c->timeMin_ != never) clocks_.push(c.ptr());
  }
  return fired;
}

void ActivityManager::advanceTime(F64 seconds) {
  FENNEL_ASSERT(source_ == TimeSource::manual);
  F64 target = manualNow_ + (seconds > 0 ? seconds : 0);
  fireDueClocks(target, true);
  manualNow_ = target;
}

void ActivityManager::runOnce(F64 maxWaitSeconds) {
  // Handlers that ran may have changed what the caller waits for: after
  // firing clocks only poll, so runUntil re-checks its predicate at once.
  bool const fired = fireDueClocks(now(), false) > 0;
  F64 wait = maxWaitSeconds;
  if (fired || stopped_ || clockDue()) {
    wait = 0;
  } else if (source_ == TimeSource::real && !clocks_.empty()) {
    F64 untilClock = clocks_.top()->timeMin_ - now();
    if (untilClock < wait) wait = untilClock;
  }
  epoll_event events[kEventBatch];
  int n = epoll_wait(epfd_, events, kEventBatch, waitMilliseconds(wait));
  for (int i = 0; i < n; ++i) dispatch(events[i].data.u64, events[i].events);
}

void ActivityManager::run() {
  stopped_ = false;
  while (!stopped_) runOnce(3600);
  stopped_ = false;
}

bool ActivityManager::runUntil(std::function<bool()> const& predicate, F64 timeoutSeconds) {
  F64 const deadline = monotonicNow() + timeoutSeconds;
  stopped_ = false;
  for (;;) {
    if (predicate()) return true;
    F64 left = deadline - monotonicNow();
    if (left <= 0 || stopped_) break;
    runOnce(left);
  }
  stopped_ = false;
  return predicate();
}

// --- descriptor registration ---------------------------------------------------

int ActivityManager::fdUpdate(FileDescriptor* fd) {
  U32 events = 0;
  if (fd->notifyOnReadable_) events |= EPOLLIN | EPOLLRDHUP;
  if (fd->notifyOnWritable_) events |= EPOLLOUT;
  if (events == 0 || fd->descriptor_ < 0) {
    fdDeregister(fd);
    return 0;
  }
  if (fd->edgeTriggered_) events |= EPOLLET;
  bool const adding = !fd->registered_;
  if (adding) {
    U32 index;
    if (!freeSlots_.empty()) {
      index = freeSlots_.back();
      freeSlots_.pop_back();
    } else {
      index = static_cast<U32>(slots_.size());
      slots_.push_back({});
    }
    slots_[index].fd = fd;
    fd->slot_ = index;
    fd->registered_ = true;
  }
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = (static_cast<U64>(slots_[fd->slot_].generation) << 32) | fd->slot_;
  int rc = epoll_ctl(epfd_, adding ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd->descriptor_, &ev);
  if (rc < 0 && !adding && errno == ENOENT) {
    // The kernel dropped the registration when the descriptor was closed
    // and reopened behind our back: register the new one.
    rc = epoll_ctl(epfd_, EPOLL_CTL_ADD, fd->descriptor_, &ev);
  }
  if (rc < 0) {
    int error = errno;
    fdDeregister(fd);
    return error;
  }
  return 0;
}

void ActivityManager::fdDeregister(FileDescriptor* fd) {
  if (!fd->registered_) return;
  if (fd->descriptor_ >= 0) epoll_ctl(epfd_, EPOLL_CTL_DEL, fd->descriptor_, nullptr);
  Slot& s = slots_[fd->slot_];
  s.fd = nullptr;
  ++s.generation;  // events already fetched for this slot are now stale
  freeSlots_.push_back(fd->slot_);
  fd->registered_ = false;
}

void ActivityManager::dispatch(U64 token, U32 events) {
  U32 const index = static_cast<U32>(token);
  U32 const generation = static_cast<U32>(token >> 32);
  auto live = [&] { return index < slots_.size() && slots_[index].generation == generation && slots_[index].fd; };
  if (!live()) return;
  FileDescriptor* fd = slots_[index].fd;
  Ptr<FileDescriptor> keep(fd->references() ? fd : nullptr);
  U32 const failure = EPOLLERR | EPOLLHUP;
  if ((events & (EPOLLIN | EPOLLRDHUP | failure)) && fd->notifyOnReadable_) {
    fd->notify(&FileDescriptor::Notifiee::handleReadable);
  }
  if (!live()) return;
  if ((events & (EPOLLOUT | failure)) && fd->notifyOnWritable_) {
    fd->notify(&FileDescriptor::Notifiee::handleWritable);
  }
}

}  // namespace Brio
