// The neighbour agent example end to end: a publisher process follows a test
// namespace's neighbours into the shared tables, a mirror process runs the
// shim over them, and what the mirror prints must match `ip neigh show`,
// after changes and after a forced netlink resync.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "support/NetnsScope.h"
#include "support/ShoalScope.h"

using CorvidTest::NamedNetns;

namespace {

// Runs the example with `args`, its stdout on the child's answer pipe.
std::unique_ptr<CorvidTest::Child> start(std::vector<std::string> args, std::vector<std::string> env = {}) {
  return std::make_unique<CorvidTest::Child>([args, env](int, int out) {
    char const* dir = std::getenv("CORVID_TEST_BINARY_DIR");
    std::string const example = std::string(dir ? dir : CORVID_BINARY_DIR) + "/examples/neighbor_agent";
    dup2(out, STDOUT_FILENO);
    for (auto const& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>("neighbor_agent")};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(example.c_str(), argv.data());
    return 127;
  });
}

// The kernel's neighbours as the mirror prints them: "VRF INTF ADDR MAC
// static|dynamic", veth1 in VRF blue, everything else in default.
std::set<std::string> kernel(NamedNetns const& ns) {
  std::set<std::string> out;
  for (auto const& n : nlohmann::json::parse(CorvidTest::shOutput("ip -n " + ns.name() + " -j neigh show"))) {
    if (!n.contains("lladdr")) continue;
    std::string const dev = n.at("dev");
    bool const permanent = n.at("state").dump().find("PERMANENT") != std::string::npos;
    out.insert((dev == "veth1" ? "blue " : "default ") + dev + ' ' + n.at("dst").get<std::string>() + ' ' +
               n.at("lladdr").get<std::string>() + (permanent ? " static" : " dynamic"));
  }
  return out;
}

// Reads the mirror's snapshots until one equals the kernel's table;
// returns the last snapshot seen.
std::set<std::string> waitForMatch(CorvidTest::Child& mirror, NamedNetns const& ns, double seconds) {
  std::set<std::string> snapshot;
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    std::set<std::string> lines;
    for (std::string l; (l = mirror.line(1)) != "end" && !mirror.ended();) lines.insert(l);
    if (!lines.empty() || !snapshot.empty()) snapshot = lines;
    if (snapshot == kernel(ns)) return snapshot;
  }
  return snapshot;
}

void batch(NamedNetns const& ns, std::string const& verb, int from, int count) {
  std::string const path = "/tmp/" + ns.name() + ".batch";
  {
    std::ofstream f(path);
    for (int i = from; i < from + count; ++i) {
      f << "neigh " << verb << " 10.9." << (i >> 8 & 255) << '.' << (i & 255);
      if (verb != "del") f << " lladdr 02:00:00:09:" << std::hex << (i >> 8 & 255) << ':' << (i & 255) << std::dec
                           << " nud permanent";
      f << " dev veth0\n";
    }
  }
  CorvidTest::sh("ip -n " + ns.name() + " -batch " + path);
  std::remove(path.c_str());
}

}  // namespace

TEST(NeighborAgentExample, MirrorMatchesTheKernelThroughChangesAndAResync) {
  NamedNetns ns("nagent");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  CorvidTest::ShoalRoot root;
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  ASSERT_EQ(ns.ip("link set veth1 up"), 0);
  ASSERT_EQ(ns.ip("neigh add 10.0.0.2 lladdr 02:00:00:00:00:02 dev veth0 nud permanent"), 0);
  ASSERT_EQ(ns.ip("neigh add 10.1.0.2 lladdr 02:00:00:00:01:02 dev veth1 nud permanent"), 0);
  ASSERT_EQ(ns.ip("neigh add 2001:db8::2 lladdr 02:00:00:00:00:62 dev veth1 nud reachable"), 0);

  // A tiny receive buffer, so that the flood below overflows it.
  auto publisher = start({"publish", ns.name(), "--vrf", "veth1=blue"}, {"NL_RCVBUFSIZE=4096"});
  auto mirror = start({"mirror"});
  ASSERT_NE(publisher->line(10).find("publishing"), std::string::npos);
  EXPECT_EQ(waitForMatch(*mirror, ns, 10), kernel(ns));

  ASSERT_EQ(ns.ip("neigh del 10.0.0.2 dev veth0"), 0);
  ASSERT_EQ(ns.ip("neigh add 10.1.0.3 lladdr 02:00:00:00:01:03 dev veth1 nud permanent"), 0);
  EXPECT_EQ(waitForMatch(*mirror, ns, 10), kernel(ns));

  // Lost notifications: the publisher resyncs (3 s later) and sweeps.
  batch(ns, "add", 1, 1500);
  batch(ns, "del", 1, 700);
  EXPECT_EQ(waitForMatch(*mirror, ns, 20), kernel(ns));

  publisher->kill(SIGTERM);
  std::string const counters = publisher->line(5);
  EXPECT_NE(counters.find("resyncs "), std::string::npos) << counters;
  EXPECT_EQ(counters.find("resyncs 0 "), std::string::npos) << "the flood must have forced a resync: " << counters;
}
