// The activity loop's costs: notification fan-out per notifiee, timer
// arm/cancel with 100k timers waiting, and a readable-event round trip (pipe
// write to handler) against a bare epoll_wait loop doing the same work.
#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Quay/TimerWheel.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <vector>

#include "BenchRatio.h"

namespace {

class Counter : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Counter> {
   public:
    explicit Notifiee(Brio::Ptr<Counter> const& c) : EntityNotifiee(c) {}
    virtual void handleValue() {}
  };
  Counter() : Entity("counter") {}
  void valueInc() { attributeIs(value_, value_ + 1, &Notifiee::handleValue); }

 private:
  U64 value_ = 0;
};

class Follower : public Counter::Notifiee {
 public:
  using Notifiee::Notifiee;
  void handleValue() override { benchmark::DoNotOptimize(++seen); }
  U64 seen = 0;
};

void NotifyFanOut(benchmark::State& state) {
  Brio::Ptr<Counter> c(new Counter);
  std::vector<std::unique_ptr<Follower>> followers;
  for (int i = 0; i < state.range(0); ++i) followers.push_back(std::make_unique<Follower>(c));
  for (auto _ : state) c->valueInc();
  // Seconds per notifiee, printed with an SI suffix (n = nanoseconds).
  state.counters["ns_per_notifiee"] = benchmark::Counter(
      static_cast<double>(state.iterations() * state.range(0)),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(NotifyFanOut)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void TimerArmCancelAt100k(benchmark::State& state) {
  Brio::ActivityManager am(Brio::ActivityManager::TimeSource::manual);
  auto wheel = Quay::TimerWheel::timerWheelFactory();
  std::vector<std::unique_ptr<Quay::TimerWheel::Timer>> timers;
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> when(1, 1000);
  for (int i = 0; i < 100000; ++i) {
    timers.push_back(std::make_unique<Quay::TimerWheel::Timer>(wheel, [] {}));
    timers.back()->expiryIs(when(rng));
  }
  Quay::TimerWheel::Timer probe(wheel, [] {});
  for (auto _ : state) {
    probe.expiryIs(when(rng));
    probe.cancel();
  }
  state.SetLabel("one arm + one cancel");
}
BENCHMARK(TimerArmCancelAt100k);

void TimerRearmAt100k(benchmark::State& state) {
  Brio::ActivityManager am(Brio::ActivityManager::TimeSource::manual);
  auto wheel = Quay::TimerWheel::timerWheelFactory();
  std::vector<std::unique_ptr<Quay::TimerWheel::Timer>> timers;
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> when(1, 1000);
  for (int i = 0; i < 100000; ++i) {
    timers.push_back(std::make_unique<Quay::TimerWheel::Timer>(wheel, [] {}));
    timers.back()->expiryIs(when(rng));
  }
  std::size_t i = 0;
  for (auto _ : state) {
    timers[i]->expiryIs(when(rng));
    i = (i + 1) % timers.size();
  }
}
BENCHMARK(TimerRearmAt100k);

struct PipePair {
  PipePair() { pipe2(fds, O_NONBLOCK | O_CLOEXEC); }
  ~PipePair() {
    close(fds[0]);
    close(fds[1]);
  }
  int fds[2];
};

class Reader : public Brio::FileDescriptor::Notifiee {
 public:
  explicit Reader(Brio::Ptr<Brio::FileDescriptor> const& fd) : Notifiee(fd) {}
  void handleReadable() override {
    char buf[64];
    while (read(notifier()->descriptor(), buf, sizeof buf) > 0) ++reads;
  }
  U64 reads = 0;
};

void LoopRoundTrip(benchmark::State& state) {
  Brio::ActivityManager am;
  int fds[2];
  pipe2(fds, O_NONBLOCK | O_CLOEXEC);
  auto fd = Brio::FileDescriptor::fileDescriptorFactory("pipe", fds[0]);
  Reader reader(fd);
  fd->notifyOnReadableIs(true);
  char byte = 'x';
  for (auto _ : state) {
    if (write(fds[1], &byte, 1) != 1) state.SkipWithError("write");
    U64 before = reader.reads;
    while (reader.reads == before) am.runOnce(1);
  }
  close(fds[1]);
}
BENCHMARK(LoopRoundTrip);

void BareEpollRoundTrip(benchmark::State& state) {
  PipePair p;
  int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP;
  ev.data.u64 = 0;
  epoll_ctl(ep, EPOLL_CTL_ADD, p.fds[0], &ev);
  char byte = 'x';
  U64 reads = 0;
  for (auto _ : state) {
    if (write(p.fds[1], &byte, 1) != 1) state.SkipWithError("write");
    U64 before = reads;
    while (reads == before) {
      epoll_event events[64];
      int n = epoll_wait(ep, events, 64, 1000);
      for (int i = 0; i < n; ++i) {
        char buf[64];
        while (read(p.fds[0], buf, sizeof buf) > 0) ++reads;
      }
    }
  }
  close(ep);
}
BENCHMARK(BareEpollRoundTrip);

}  // namespace

int main(int argc, char** argv) {
  return CorvidBench::runWithRatios(argc, argv, {{"LoopRoundTrip", "BareEpollRoundTrip", 1.25}});
}
