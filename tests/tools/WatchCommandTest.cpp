// `corvid watch` as an operator runs it: against a namespace the test makes,
// checked with `ip`, stopped by Ctrl-C, with clear failures.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "support/NetnsScope.h"
#include "tools/ToolProcess.h"

using CorvidTest::NamedNetns;
using CorvidTest::runCorvid;
using CorvidTest::ToolProcess;

TEST(WatchCommand, DumpsThenFollowsAndCtrlCStopsItWithTheCounters) {
  NamedNetns ns("watch");
  if (!ns.ok()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(ns.ip("link add veth0 type veth peer name veth1"), 0);
  ASSERT_EQ(ns.ip("link set veth0 up"), 0);
  ASSERT_EQ(ns.ip("addr add 192.0.2.1/24 dev veth0"), 0);
  ASSERT_EQ(ns.ip("neigh add 192.0.2.7 lladdr 02:00:00:00:00:07 dev veth0 nud permanent"), 0);

  ToolProcess tool({"watch", "--ns", ns.name(), "--json"});
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  ASSERT_EQ(ns.ip("neigh add 192.0.2.8 lladdr 02:00:00:00:00:08 dev veth0 nud permanent"), 0);
  ASSERT_EQ(ns.ip("neigh del 192.0.2.7 dev veth0"), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  tool.signal(SIGINT);
  auto const r = tool.finish(5);
  ASSERT_EQ(r.status, 0) << r.err;

  // Each line one JSON object; the neighbours and the address the test made,
  // as heard in the dump or after it.
  std::set<std::string> events;
  bool synced = false;
  nlohmann::json last;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    auto const j = last = nlohmann::json::parse(line);
    if (j["event"] == "synced") {
      synced = true;
      EXPECT_EQ(j["links"], 3) << "lo, veth0, veth1";
    }
    if (j["event"] == "addr" && j["addr"] == "192.0.2.1/24") events.insert(synced ? "follow addr" : "dump addr");
    if (j["event"] != "neigh" || j["dst"].get<std::string>().rfind("192.0.2.", 0) != 0) continue;
    events.insert((synced ? "follow " : "dump ") + j["op"].get<std::string>() + ' ' + j["dst"].get<std::string>() +
                  ' ' + j["dev"].get<std::string>());
  }
  // Not equality: deleting a neighbour may first notify it changed (an "add").
  std::set<std::string> const expected = {"dump addr", "dump add 192.0.2.7 veth0", "follow add 192.0.2.8 veth0",
                                          "follow del 192.0.2.7 veth0"};
  EXPECT_TRUE(std::ranges::includes(events, expected)) << r.out;
  EXPECT_EQ(last["event"], "counters");
  EXPECT_EQ(last["doneCount"], 3);
}

TEST(WatchCommand, BadInvocationsFailClearly) {
  struct Case {
    std::vector<std::string> args;
    int status;
    char const* message;
  } const cases[] = {
      {{"watch", "--ns", "corvid-no-such-namespace"}, 1, "namespace 'corvid-no-such-namespace' does not exist"},
      {{"watch", "--ns", std::string(151, 'n')}, 2, "NamespaceName::value::bytes > 150 not allowed"},
  };
  for (auto const& c : cases) {
    auto const r = runCorvid(c.args);
    EXPECT_EQ(r.status, c.status) << c.args[1];
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}
