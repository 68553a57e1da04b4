// TCP receive and accept costs, inside a private network namespace (root):
// - a stream of 200-byte SimpleTcpPduPam PDUs received through the endpoint
//   and the activity loop, in the exact-read mode (two recv calls per PDU,
//   reported as it is) and in the read-ahead mode (goal: at least 0.75 of
//   the rate of a bare loop of 64 KiB recv calls on the same stream);
// - connections accepted through TcpServerSm and taken with getConnSocket,
//   against a bare non-blocking accept4 loop (goal: at least 0.8 of its rate).
// Each iteration pre-fills the socket (or the accept queue), then times the
// draining, so the sender does not enter the measurement. Every benchmark
// runs five repetitions; the ratios compare medians.
#include <Brio/ActivityManager.h>
#include <Corvid/SimpleTcpPduPam.h>
#include <Corvid/TcpClientServer.h>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BenchRatio.h"
#include "NetnsBenchSupport.h"

namespace {

using namespace Corvid;

constexpr int kPdus = 300;  // 60 000 bytes per burst
constexpr int kPduBytes = 200;
constexpr int kConnections = 64;

bool enterPrivateNamespace() {
  static bool ok = unshare(CLONE_NEWNET) == 0 && std::system("ip link set lo up") == 0;
  return ok;
}

using CorvidBench::loopbackPort;

// A connected loopback pair with room for a whole burst on both sides.
struct StreamPair {
  StreamPair() {
    int l = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int big = 4 << 20;
    setsockopt(l, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
    sockaddr_in a = loopbackPort(0);
    bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(l, 1);
    socklen_t len = sizeof a;
    getsockname(l, reinterpret_cast<sockaddr*>(&a), &len);
    sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(sender, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    connect(sender, reinterpret_cast<sockaddr*>(&a), sizeof a);
    receiver = accept4(l, nullptr, nullptr, SOCK_CLOEXEC);
    close(l);
    burst.resize(kPdus * kPduBytes, 'p');
    for (int i = 0; i < kPdus; ++i) SimpleTcpPduPam::pduLengthIs(reinterpret_cast<U8*>(&burst[i * kPduBytes]), kPduBytes);
  }
  ~StreamPair() { close(sender); }
  void send() const {
    std::size_t done = 0;
    while (done < burst.size()) {
      ssize_t n = ::send(sender, burst.data() + done, burst.size() - done, 0);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
  }
  int sender = -1;
  int receiver = -1;
  std::string burst;
};

class Drain : public TcpPduPam::Notifiee {
 public:
  explicit Drain(Brio::Ptr<TcpPduPam> const& p) : Notifiee(p), pam_(p.ptr()) {}
  void handleReadableCount() override {
    while (auto pkt = pam_->rxPkt()) ++received;
  }
  int received = 0;

 private:
  TcpPduPam* pam_;
};

void PduStream(benchmark::State& state, bool readAhead) {
  if (!enterPrivateNamespace()) return state.SkipWithError("needs root for a network namespace");
  Brio::ActivityManager am;
  StreamPair pair;
  auto pam = simpleTcpPduPamFactory(tcpFileDescriptorFactory(pair.receiver, false),
                                    tcpFileDescriptorEventRegistrationFactoryBrioc());
  pam->readAheadIs(readAhead);
  Drain drain(pam);
  pam->enabledIs(true);
  for (auto _ : state) {
    state.PauseTiming();
    drain.received = 0;
    pair.send();
    state.ResumeTiming();
    while (drain.received < kPdus) am.runOnce(1);
  }
  state.SetItemsProcessed(state.iterations() * kPdus);
}
void PduStreamExactRead(benchmark::State& state) { PduStream(state, false); }
void PduStreamReadAhead(benchmark::State& state) { PduStream(state, true); }
BENCHMARK(PduStreamExactRead)->UseRealTime()->Repetitions(5);
BENCHMARK(PduStreamReadAhead)->UseRealTime()->Repetitions(5);

void BareRecv64k(benchmark::State& state) {
  if (!enterPrivateNamespace()) return state.SkipWithError("needs root for a network namespace");
  StreamPair pair;
  std::vector<char> buf(65536);
  for (auto _ : state) {
    state.PauseTiming();
    pair.send();
    state.ResumeTiming();
    std::size_t got = 0;
    while (got < pair.burst.size()) {
      ssize_t n = recv(pair.receiver, buf.data(), buf.size(), 0);
      if (n > 0) got += static_cast<std::size_t>(n);
    }
  }
  close(pair.receiver);
  state.SetItemsProcessed(state.iterations() * kPdus);
}
BENCHMARK(BareRecv64k)->UseRealTime()->Repetitions(5);

// kConnections clients whose handshakes the kernel completes before anybody
// accepts (the listener's backlog holds them all).
std::vector<int> connectClients(U16 port) {
  std::vector<int> clients;
  sockaddr_in to = loopbackPort(port);
  for (int i = 0; i < kConnections; ++i) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connect(c, reinterpret_cast<sockaddr*>(&to), sizeof to);
    clients.push_back(c);
  }
  return clients;
}

void closeAll(std::vector<int> const& fds) {
  for (int fd : fds) close(fd);
}

U16 freePort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopbackPort(0);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  close(s);
  return ntohs(a.sin_port);
}

void ServerSmAccept(benchmark::State& state) {
  if (!enterPrivateNamespace()) return state.SkipWithError("needs root for a network namespace");
  Brio::ActivityManager am;
  U16 const port = freePort();
  auto status = tcpServerStatusFactory();
  auto server = tcpServerSmFactory(tcpFileDescriptorEventRegistrationFactoryBrioc(),
                                   Quay::TimerWheel::timerWheelFactory(),
                                   tcpServerConfigFactory(IpGenAddr(IpAddr(127, 0, 0, 1)), Port(port)), status);
  server->backlogIs(1024);
  if (!server->startListener()) return state.SkipWithError(status->reason().c_str());
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<int> clients = connectClients(port);
    state.ResumeTiming();
    int taken = 0;
    while (taken < kConnections) {
      am.runOnce(1);
      while (TcpConnSocket conn = status->getConnSocket()) ++taken;
    }
    state.PauseTiming();
    closeAll(clients);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kConnections);
}
BENCHMARK(ServerSmAccept)->UseRealTime()->Repetitions(5);

void BareAccept4(benchmark::State& state) {
  if (!enterPrivateNamespace()) return state.SkipWithError("needs root for a network namespace");
  U16 const port = freePort();
  int l = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(l, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = loopbackPort(port);
  bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a);
  listen(l, 1024);
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<int> clients = connectClients(port);
    state.ResumeTiming();
    int taken = 0;
    while (taken < kConnections) {
      int c = accept4(l, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (c >= 0) {
        close(c);
        ++taken;
      }
    }
    state.PauseTiming();
    closeAll(clients);
    state.ResumeTiming();
  }
  close(l);
  state.SetItemsProcessed(state.iterations() * kConnections);
}
BENCHMARK(BareAccept4)->UseRealTime()->Repetitions(5);

// Keeps the median of the repetitions by benchmark name.
class MedianReporter : public CorvidBench::RecordingReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    benchmark::ConsoleReporter::ReportRuns(runs);
    for (auto const& r : runs) {
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
        times[r.run_name.str()] = r.GetAdjustedRealTime();
        cpuTimes[r.run_name.str()] = r.GetAdjustedCPUTime();
      }
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  struct Comparison {
    char const* ours;
    char const* peer;
    double goalRate;  // ours must reach this share of the peer's rate (0: informative)
  } const comparisons[] = {
      {"PduStreamExactRead/repeats:5/real_time", "BareRecv64k/repeats:5/real_time", 0},
      {"PduStreamReadAhead/repeats:5/real_time", "BareRecv64k/repeats:5/real_time", 0.75},
      {"ServerSmAccept/repeats:5/real_time", "BareAccept4/repeats:5/real_time", 0.8},
  };
  std::printf("\n");
  for (auto const& c : comparisons) {
    auto ours = reporter.times.find(c.ours);
    auto peer = reporter.times.find(c.peer);
    if (ours == reporter.times.end() || peer == reporter.times.end() || ours->second <= 0) continue;
    double const rate = peer->second / ours->second;  // our rate as a share of the peer's
    // CPU time too: on a shared machine the wall clock also measures the
    // neighbours, the CPU time only this process.
    double const cpuOurs = reporter.cpu(c.ours);
    double const cpuRate = cpuOurs > 0 ? reporter.cpu(c.peer) / cpuOurs : 0;
    if (c.goalRate > 0) {
      std::printf("rate %s / %s = %.3f of the peer, %.3f by CPU time (goal >= %.2f, medians of 5): %s\n", c.ours,
                  c.peer, rate, cpuRate, c.goalRate, rate >= c.goalRate ? "met" : "NOT MET");
    } else {
      std::printf("rate %s / %s = %.3f of the peer, %.3f by CPU time (medians of 5)\n", c.ours, c.peer, rate,
                  cpuRate);
    }
  }
  benchmark::Shutdown();
  return 0;
}
