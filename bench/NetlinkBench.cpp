// The namespace watcher's dump and notification paths against their peers.
//
//   WatcherDump     a synchronous dump of 50,000 neighbours through
//                   NetlinkNetNsSm, each message handed to a counting callback
//   BareRecvDump    the same dump read by a bare recv loop (32 KiB buffer,
//                   NLMSG_OK walk): what a hand-written client costs
//   IpNeighJson     `ip -j neigh show` of the same table, to /dev/null
//
// Goals: the watcher at least half the bare loop's speed (time ratio at most
// 2), and at least 4 times faster than `ip -j` (time ratio at most 0.25).
// After the timed runs, a notification flood: 50,000 neighbour adds by a
// concurrent `ip -batch` while an RtnlMirror follows with the default
// receive buffer; it reports the resyncs that happened and whether the final
// state equals a fresh dump. Everything runs in a namespace made here and
// removed at exit. Needs root.
#include <Brio/ActivityManager.h>
#include <Corvid/NetlinkNetNsSm.h>
#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/RtnlMirror.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>

#include "BenchRatio.h"
#include "NetnsBenchSupport.h"

namespace {

constexpr int kNeighbours = 50000;

std::string const& benchNs() {
  static std::string const name = "corvid-bench-nl-" + std::to_string(getpid());
  return name;
}

using CorvidBench::sh;

std::string batchFile(int first, int count) { return CorvidBench::neighbourBatch(benchNs(), first, count); }
bool makeNamespace(std::string const& ns, int neighbours) { return CorvidBench::makeNeighbourNamespace(ns, neighbours); }

struct Counter : Corvid::NetlinkMessageCallback {
  Counter() : NetlinkMessageCallback("count") {}
  void callback(nlmsghdr* const& msg) override { count += msg->nlmsg_type == RTM_NEWNEIGH; }
  U64 count = 0;
};
struct NoCleanup : Corvid::CleanupCallback {
  NoCleanup() : CleanupCallback("none") {}
  void callback() override {}
};
struct NoClear : Corvid::ClearResyncStateCallback {
  NoClear() : ClearResyncStateCallback("none") {}
  void callback() override {}
};

void WatcherDump(benchmark::State& state) {
  Brio::ActivityManager loop;
  for (auto _ : state) {
    Brio::Ptr<Counter> counter(new Counter);
    auto sm = Corvid::netlinkNetNsSmFactory(Corvid::NamespaceName(Brio::String(benchNs())), RTMGRP_NEIGH,
                                            NETLINK_ROUTE, true, counter, new NoCleanup, new NoClear);
    sm->doInitializeNetlinkSocket(true);
    if (counter->count < kNeighbours) state.SkipWithError("incomplete dump");
    sm->handleDestruction();
  }
  state.SetItemsProcessed(state.iterations() * kNeighbours);
}

void BareRecvDump(benchmark::State& state) {
  for (auto _ : state) {
    if (CorvidBench::bareNeighbourDump(benchNs()) < kNeighbours) state.SkipWithError("incomplete dump");
  }
  state.SetItemsProcessed(state.iterations() * kNeighbours);
}

void IpNeighJson(benchmark::State& state) {
  std::string const cmd = "ip -n " + benchNs() + " -j neigh show > /dev/null";
  for (auto _ : state) sh(cmd);
  state.SetItemsProcessed(state.iterations() * kNeighbours);
}

BENCHMARK(WatcherDump)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BareRecvDump)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(IpNeighJson)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);

// The flood: a follower with the default receive buffer against 50,000 adds
// made as fast as iproute2 makes them.
void notificationFlood() {
  std::string const ns = benchNs() + "-flood";
  if (!makeNamespace(ns, 0)) {
    std::printf("flood: cannot make namespace %s\n", ns.c_str());
    return;
  }
  std::string const path = batchFile(1, kNeighbours);
  Brio::ActivityManager loop;
  Corvid::RtnlMirror mirror(Corvid::NamespaceName(Brio::String(ns)), RTMGRP_LINK | RTMGRP_NEIGH);
  mirror.sm()->resyncHelperSm()->delayBeforeResyncIs(0.2);  // keep the run short; 3 s by default
  mirror.start(true);
  auto const start = std::chrono::steady_clock::now();
  pid_t adder = fork();
  if (adder == 0) {
    execlp("ip", "ip", "-n", ns.c_str(), "-batch", path.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  bool adderDone = false;
  auto caughtUp = [&] {
    if (!adderDone) adderDone = waitpid(adder, &status, WNOHANG) == adder;
    return adderDone && mirror.synced() && mirror.neighs().size() >= static_cast<std::size_t>(kNeighbours);
  };
  // Short turns: the adder's exit wakes no descriptor of the loop.
  while (!caughtUp() && std::chrono::steady_clock::now() - start < std::chrono::seconds(120)) {
    loop.runUntil(caughtUp, 0.05);
  }
  if (!adderDone) {
    kill(adder, SIGKILL);
    waitpid(adder, &status, 0);
  }
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  // The final state against a fresh bare dump.
  std::set<std::string> kernel, ours;
  int sd = Corvid::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());
  Corvid::sendNetlinkRequest(sd, 1, RTM_GETNEIGH);
  static char buf[32768];
  for (bool done = false; !done;) {
    ssize_t n = recv(sd, buf, sizeof buf, 0);
    if (n <= 0) break;
    Corvid::NetlinkMsgWalk walk(buf, static_cast<std::size_t>(n));
    while (nlmsghdr const* h = walk.next()) {
      if (h->nlmsg_type == NLMSG_DONE) done = true;
      auto const m = Corvid::decodeRtnl(h);
      if (m.kind == Corvid::RtnlMessage::Kind::neigh && m.neigh.addr.isV4()) kernel.insert(Brio::strep(m.neigh.addr).str());
    }
  }
  close(sd);
  for (auto const& [key, e] : mirror.neighs()) {
    if (e.value.addr.isV4()) ours.insert(Brio::strep(e.value.addr).str());
  }
  auto* sm = mirror.sm();
  std::printf("flood: %d adds in %.2f s; resyncs %u, enobufsCount %u, edumpintrsCount %u, swept %u; "
              "final state %s (%zu neighbours, kernel %zu)\n",
              kNeighbours, seconds, sm->resyncAttempts(), sm->enobufsCount(), sm->edumpintrsCount(), mirror.swept(),
              kernel == ours ? "exact" : "DIFFERS", ours.size(), kernel.size());
  std::remove(path.c_str());
  sh("ip netns del " + ns);
}

}  // namespace

int main(int argc, char** argv) {
  if (geteuid() != 0) {
    std::printf("NetlinkBench needs root (it makes network namespaces)\n");
    return 0;
  }
  if (!makeNamespace(benchNs(), kNeighbours)) {
    std::printf("cannot make the benchmark namespace\n");
    sh("ip netns del " + benchNs() + " 2>/dev/null");
    return 1;
  }
  int rc = CorvidBench::runWithRatios(argc, argv,
                                      {{"WatcherDump/repeats:5/real_time_median", "BareRecvDump/repeats:5/real_time_median", 2.0},
                                       {"WatcherDump/repeats:5/real_time_median", "IpNeighJson/repeats:5/real_time_median", 0.25}});
  sh("ip netns del " + benchNs());
  notificationFlood();
  return rc;
}
