// Neighbours end to end: 100,000 permanent neighbours from a kernel dump,
// through the netlink watcher and ArpPublisher into the shared neighbour
// table, and through ArpShimSm in a second process into its status tree.
//
//   dump alone      the same dump read by a bare recv loop (the peer)
//   dump + publish  RtnlMirror's synchronous dump with ArpPublisher writing
//                   every entry, then the commit
//   shim            from the commit until the other process's status tree
//                   holds every entry
//
// Reports entries per second end to end, the ratio of the bare dump's time
// to the end-to-end time, and each stage's share, as the median of five
// runs. Runs in a namespace and a SHOAL_ROOT of its own, removed at exit.
// Needs root.
#include <Brio/ActivityManager.h>
#include <Corvid/ArpPublisher.h>
#include <Corvid/ArpShim.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <vector>

#include "NetnsBenchSupport.h"

namespace {

constexpr int kNeighbours = 100000;
constexpr int kRuns = 5;

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// The second process: mounts both tables as a reader, runs the shim, and
// writes one byte to `ready` once mounted and one to `done` when its tree
// holds every neighbour.
int shimProcess(int ready, int done) {
  Brio::ActivityManager loop;
  auto vrfs = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arp = Arp::Table::Status::statusFactory("arp", 131072);
  vrfs->mount("vrfIdMap/status", Shoal::MountMode::reader);
  arp->mount("arp/status", Shoal::MountMode::reader);
  auto arpStatus = Arp::NeighborDir::neighborDirFactory("arpStatus");
  auto dir = Arp::ArpVrfStatusDir::arpVrfStatusDirFactory("dir");
  auto shim = Arp::arpShimSmFactory(arp, vrfs, "", true, true, arpStatus, dir);
  if (write(ready, "r", 1) != 1) return 1;
  auto entries = [&] {
    U64 n = 0;
    for (auto const& [vrf, neighbors] : dir->vrfStatuses()) {
      for (auto const& [intf, status] : neighbors->arpIntfStatuses()) n += status->arpEntries().size();
    }
    return n;
  };
  // Checked once the reader is quiet, not per entry.
  bool const ok = loop.runUntil(
      [&] { return arp->quiesced() && arp->arpEntries() >= kNeighbours && entries() >= kNeighbours; }, 20);
  if (!ok) {
    std::fprintf(stderr, "shim process: table %u entries (quiesced %d, mount %s, rescans %lu), tree %lu\n",
                 arp->arpEntries(), arp->quiesced(), Shoal::mountStatusText(arp->mountStatus()),
                 static_cast<unsigned long>(arp->rescanCount()), static_cast<unsigned long>(entries()));
  }
  return write(done, ok ? "d" : "f", 1) == 1 ? 0 : 1;
}

struct Run {
  double bare, publish, shim;
};

Run oneRun(std::string const& ns, std::string const& root) {
  Run r{};
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root);
  auto t = Clock::now();
  if (CorvidBench::bareNeighbourDump(ns) < kNeighbours) return r;
  r.bare = since(t);

  Brio::ActivityManager loop;
  auto vrfs = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arp = Arp::Table::Status::statusFactory("arp", 131072);
  vrfs->mount("vrfIdMap/status", Shoal::MountMode::writer);
  arp->mount("arp/status", Shoal::MountMode::writer);
  auto writer = Vrf::VrfIdMap::Writer::writerFactory("bench", vrfs);
  writer->handleInitialized();
  vrfs->commit();
  arp->commit();

  int ready[2], done[2];
  if (pipe(ready) != 0 || pipe(done) != 0) return r;
  pid_t child = fork();
  if (child == 0) _exit(shimProcess(ready[1], done[1]));
  char c;
  if (read(ready[0], &c, 1) != 1) return r;

  t = Clock::now();
  Arp::ArpPublisher publisher(writer, arp);
  Corvid::RtnlMirror mirror(Corvid::NamespaceName(Brio::String(ns)), RTMGRP_LINK | RTMGRP_NEIGH, &publisher);
  publisher.mirrorIs(&mirror);
  mirror.start(true);
  vrfs->commit();
  arp->commit();
  r.publish = since(t);
  t = Clock::now();
  bool const ok = read(done[0], &c, 1) == 1 && c == 'd';
  r.shim = ok ? since(t) : 0;
  int status = 0;
  waitpid(child, &status, 0);
  for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
  return r;
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("NeighborBench needs root (it makes a network namespace)\n");
    return 0;
  }
  std::string const ns = "corvid-bench-arp-" + std::to_string(getpid());
  std::string const root = "/dev/shm/corvid-bench-arp-" + std::to_string(getpid());
  setenv("SHOAL_ROOT", root.c_str(), 1);
  if (!CorvidBench::makeNeighbourNamespace(ns, kNeighbours)) {
    std::printf("cannot make the benchmark namespace\n");
    CorvidBench::sh("ip netns del " + ns + " 2>/dev/null");
    return 1;
  }
  std::vector<Run> runs;
  for (int i = 0; i < kRuns; ++i) {
    Run const r = oneRun(ns, root);
    if (r.shim <= 0) {
      std::printf("run %d did not complete\n", i);
      continue;
    }
    std::printf("run %d: bare dump %.1f ms, dump + publish %.1f ms, shim %.1f ms\n", i, r.bare * 1e3,
                r.publish * 1e3, r.shim * 1e3);
    runs.push_back(r);
  }
  CorvidBench::sh("ip netns del " + ns);
  std::filesystem::remove_all(root);
  if (runs.empty()) return 1;
  std::sort(runs.begin(), runs.end(), [](Run const& a, Run const& b) { return a.publish + a.shim < b.publish + b.shim; });
  Run const m = runs[runs.size() / 2];
  double const total = m.publish + m.shim;
  std::printf("\nmedian of %zu: %d neighbours end to end in %.1f ms = %.0f entries/s\n", runs.size(), kNeighbours,
              total * 1e3, kNeighbours / total);
  std::printf("  dump + publish %.0f%%, shim in the other process %.0f%%\n", 100 * m.publish / total,
              100 * m.shim / total);
  std::printf("ratio bare dump / end to end = %.3f (informative)\n", m.bare / total);
  return 0;
}
