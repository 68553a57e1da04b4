// Shared tables: what a writer pays per update, with and without readers,
// and how long a commit takes to reach a handler in another process.
//
// ShoalWrite/R: updates to a 100,000-entry U32 -> U64 table, a commit every
// 64 updates, with R reader processes following every key. Peer:
// BareSeqlock, a table of 100,000 fixed slots in shared memory indexed
// directly by key, each written under its own sequence counter, with the
// same commit (a release store of a head counter) every 64 updates. Each is
// repeated five times; the ratios use the medians. The reader comparison
// uses the writer's CPU time: this machine has two cores, so eight busy
// readers take wall time from the writer whatever the table does; what the
// writer must not do is wait for them or pay for them per update.
//
// Latency: one writer, one reader process; the writer stamps a key with
// CLOCK_MONOTONIC and commits; the reader's handler takes the difference
// and acknowledges over a pipe before the next commit. p50 and p99 over
// SHOAL_BENCH_COMMITS commits (default 100,000).
#include <Brio/ActivityManager.h>
#include <Shoal/Shoal.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "BenchRatio.h"

namespace {

constexpr U32 entries = 100000;
constexpr U32 commitEvery = 64;

class BenchTable : public Shoal::Table {
 public:
  class Notifiee : public Shoal::TableNotifiee<BenchTable> {
   public:
    virtual void handleValue(U32 const&) {}

   protected:
    using Shoal::TableNotifiee<BenchTable>::TableNotifiee;
  };
  static Brio::Ptr<BenchTable> benchTableFactory(Brio::String name) {
    return Brio::Ptr<BenchTable>(new BenchTable(std::move(name)));
  }
  Shoal::Collection<U32, U64, Notifiee, &Notifiee::handleValue> value{this, "value", 4, 8, entries};

 private:
  explicit BenchTable(Brio::String name) : Table(std::move(name), "Bench::Table") {}
};

class Counter : public BenchTable::Notifiee {
 public:
  explicit Counter(Brio::Ptr<BenchTable> const& t) : Notifiee(t) {}
  void handleValue(U32 const& k) override { benchmark::DoNotOptimize(sum += notifier()->value.get(k)); }
  U64 sum = 0;
};

std::string rootDir;

// A reader process following "bench" until killed.
pid_t startReader() {
  pid_t pid = fork();
  if (pid == 0) {
    Brio::ActivityManager loop;
    auto t = BenchTable::benchTableFactory("reader");
    Counter c(t);
    t->mount("bench", Shoal::MountMode::reader);
    loop.run();
    _exit(0);
  }
  return pid;
}

void ShoalWrite(benchmark::State& state) {
  auto w = BenchTable::benchTableFactory("writer");
  if (!w->mount("bench", Shoal::MountMode::writer)) {
    state.SkipWithError(w->reason().c_str());
    return;
  }
  for (U32 k = 0; k < entries; ++k) w->value.set(k, k);
  w->commit();
  std::vector<pid_t> readers;
  for (int i = 0; i < state.range(0); ++i) readers.push_back(startReader());
  if (!readers.empty()) usleep(300000);  // let them mount and scan
  U32 k = 0;
  U64 v = 0;
  U32 n = 0;
  for (auto _ : state) {
    w->value.set(k, ++v);
    if (++k == entries) k = 0;
    if (++n == commitEvery) {
      n = 0;
      w->commit();
    }
  }
  w->commit();
  if (!readers.empty()) {
    state.counters["wakeups_per_commit"] = double(w->wakeupsSent()) / double(w->commitCount() ? w->commitCount() : 1);
  }
  for (pid_t p : readers) {
    kill(p, SIGKILL);
    waitpid(p, nullptr, 0);
  }
  w->unmount();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ShoalWrite)->Arg(0)->Arg(8)->Repetitions(5)->Unit(benchmark::kNanosecond);

struct BareSlot {
  std::atomic<U32> seq;
  U32 key;
  U64 value;
};

void BareSeqlock(benchmark::State& state) {
  std::string file = rootDir + "/bare";
  int fd = open(file.c_str(), O_RDWR | O_CREAT, 0644);
  std::size_t bytes = 64 + sizeof(BareSlot) * entries;
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    state.SkipWithError("cannot make the bare table");
    return;
  }
  void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  auto* head = static_cast<std::atomic<U64>*>(base);
  auto* slots = reinterpret_cast<BareSlot*>(static_cast<char*>(base) + 64);
  U32 k = 0;
  U64 v = 0;
  U32 n = 0;
  for (auto _ : state) {
    BareSlot& s = slots[k];
    U32 seq = s.seq.load(std::memory_order_relaxed);
    s.seq.store(seq + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    s.key = k;
    s.value = ++v;
    s.seq.store(seq + 2, std::memory_order_release);
    if (++k == entries) k = 0;
    if (++n == commitEvery) {
      n = 0;
      head->fetch_add(commitEvery, std::memory_order_release);
    }
  }
  munmap(base, bytes);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BareSeqlock)->Repetitions(5)->Unit(benchmark::kNanosecond);

// Keeps every repetition's times, for medians.
class AllRuns : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (auto const& r : runs) {
      if (r.run_type == Run::RT_Iteration && !r.error_occurred) {
        std::string name = r.run_name.str();
        auto rep = name.find("/repeats:");
        if (rep != std::string::npos) name.erase(rep);
        real[name].push_back(r.GetAdjustedRealTime());
        cpu[name].push_back(r.GetAdjustedCPUTime());
      }
    }
  }
  static double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }
  std::map<std::string, std::vector<double>> real, cpu;
};

U64 monotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return U64(ts.tv_sec) * 1000000000ULL + U64(ts.tv_nsec);
}

void latency(U32 commits) {
  int ack[2], result[2];
  if (pipe(ack) != 0 || pipe(result) != 0) return;
  auto w = BenchTable::benchTableFactory("latency-writer");
  if (!w->mount("latency", Shoal::MountMode::writer)) return;
  w->value.set(0, 0);
  w->commit();
  pid_t pid = fork();
  if (pid == 0) {
    Brio::ActivityManager loop;
    auto t = BenchTable::benchTableFactory("latency-reader");
    struct Timer : BenchTable::Notifiee {
      Timer(Brio::Ptr<BenchTable> const& t, int fd) : Notifiee(t), fd_(fd) {}
      void handleValue(U32 const& k) override {
        U64 stamp = notifier()->value.get(k);
        if (!stamp) return;
        samples.push_back(monotonicNs() - stamp);
        char c = 1;
        if (write(fd_, &c, 1) < 0) _exit(2);
      }
      int fd_;
      std::vector<U64> samples;
    } timer(t, ack[1]);
    t->mount("latency", Shoal::MountMode::reader);
    loop.runUntil([&] { return t->mountStatus() == Shoal::MountStatus::mounted; }, 5);
    char c = 0;
    if (write(ack[1], &c, 1) < 0) _exit(2);
    loop.runUntil([&] { return timer.samples.size() >= commits; }, 600);
    std::sort(timer.samples.begin(), timer.samples.end());
    U64 p50 = timer.samples.empty() ? 0 : timer.samples[timer.samples.size() / 2];
    U64 p99 = timer.samples.empty() ? 0 : timer.samples[timer.samples.size() * 99 / 100];
    U64 out[3] = {p50, p99, timer.samples.size()};
    if (write(result[1], out, sizeof out) < 0) _exit(2);
    _exit(0);
  }
  char c;
  auto waitAck = [&] {
    pollfd p{ack[0], POLLIN, 0};
    return poll(&p, 1, 5000) == 1 && read(ack[0], &c, 1) == 1;
  };
  bool ok = waitAck();
  for (U32 i = 0; ok && i < commits; ++i) {
    w->value.set(0, monotonicNs());
    w->commit();
    ok = waitAck();
  }
  U64 out[3] = {0, 0, 0};
  pollfd p{result[0], POLLIN, 0};
  if (ok && poll(&p, 1, 10000) == 1 && read(result[0], out, sizeof out) != sizeof out) out[2] = 0;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  w->unmount();
  std::printf("latency commit-to-handler over %llu commits: p50 %.1f us, p99 %.1f us (goal p99 <= 100 us): %s\n",
              static_cast<unsigned long long>(out[2]), out[0] / 1000.0, out[1] / 1000.0,
              out[2] == commits && out[1] <= 100000 ? "met" : "NOT MET");
  for (int fd : {ack[0], ack[1], result[0], result[1]}) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/dev/shm/corvid-bench-XXXXXX";
  rootDir = mkdtemp(tmpl);
  setenv("SHOAL_ROOT", rootDir.c_str(), 1);
  benchmark::Initialize(&argc, argv);
  AllRuns reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto med = [&](char const* name, bool cpu) { return AllRuns::median((cpu ? reporter.cpu : reporter.real)[name]); };
  double shoal = med("ShoalWrite/0", false), bare = med("BareSeqlock", false);
  std::printf("\n");
  if (shoal > 0 && bare > 0) {
    std::printf("ratio updates/s ShoalWrite/0 vs BareSeqlock = %.3f (goal >= 0.30): %s\n", bare / shoal,
                bare / shoal >= 0.3 ? "met" : "NOT MET");
  }
  double alone = med("ShoalWrite/0", true), followed = med("ShoalWrite/8", true);
  if (alone > 0 && followed > 0) {
    std::printf("ratio writer CPU rate with 8 readers vs none = %.3f (goal >= 0.90): %s\n", alone / followed,
                alone / followed >= 0.9 ? "met" : "NOT MET");
    std::printf("ratio writer wall rate with 8 readers vs none = %.3f (two shared cores)\n",
                med("ShoalWrite/0", false) / med("ShoalWrite/8", false));
  }
  char const* c = getenv("SHOAL_BENCH_COMMITS");
  latency(c ? static_cast<U32>(std::strtoul(c, nullptr, 10)) : 100000);
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(rootDir, ec);
  return 0;
}
