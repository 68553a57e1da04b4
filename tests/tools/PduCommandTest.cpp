// `corvid pdu serve` and `corvid pdu send` as an operator runs them: two
// real processes in the test's own namespace, progress lines checked.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <sstream>
#include <string>

#include "support/NetnsScope.h"
#include "tools/ToolProcess.h"

namespace {

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

// The README's walk-through: an MD5-authenticated session between two named
// namespaces joined by a veth pair; a wrong key never connects, the right
// one gets every PDU echoed.
TEST(PduCommand, AuthenticatedSessionBetweenTwoNamespaces) {
  CorvidTest::NamedNetns cli("pducli"), srv("pdusrv");
  if (!cli.ok() || !srv.ok()) GTEST_SKIP() << "needs root to make network namespaces";
  ASSERT_EQ(CorvidTest::sh("ip link add vcli netns " + cli.name() + " type veth peer name vsrv netns " + srv.name()),
            0);
  ASSERT_EQ(cli.ip("addr add 10.1.0.1/24 dev vcli") | cli.ip("link set vcli up"), 0);
  ASSERT_EQ(srv.ip("addr add 10.1.0.2/24 dev vsrv") | srv.ip("link set vsrv up"), 0);
  CorvidTest::ToolProcess server({"pdu", "serve", "--ns", srv.name(), "--listen", "10.1.0.2:1790", "--md5",
                                  "10.1.0.0/24=secret", "--count", "3", "--seconds", "20"});
  usleep(300000);
  CorvidTest::ToolResult wrong = CorvidTest::ToolProcess({"pdu", "send", "--ns", cli.name(), "--to", "10.1.0.2:1790",
                                                          "--md5", "10.1.0.2=guess", "--timeout", "2"})
                                     .finish(20);
  EXPECT_EQ(wrong.status, 1) << wrong.out;
  EXPECT_FALSE(has(wrong.out, "connected")) << wrong.out;
  CorvidTest::ToolResult right =
      CorvidTest::ToolProcess({"pdu", "send", "--ns", cli.name(), "--to", "10.1.0.2:1790", "--md5", "10.1.0.2=secret",
                               "--count", "3", "--size", "100", "--json"})
          .finish(20);
  CorvidTest::ToolResult served = server.finish(20);
  EXPECT_EQ(right.status, 0) << right.out << right.err;
  // One JSON event a line: connecting, connected, three echoes, then maybe
  // the server's close, then done.
  std::vector<nlohmann::json> ev;
  std::istringstream lines(right.out);
  for (std::string line; std::getline(lines, line);) ev.push_back(nlohmann::json::parse(line));
  ASSERT_GE(ev.size(), 6u) << right.out;
  EXPECT_EQ(ev[1]["event"], "connected");
  EXPECT_EQ(ev[1]["connection"].get<std::string>().rfind("10.1.0.1 port ", 0), 0u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ev[2 + i], (nlohmann::json{{"event", "echo"}, {"pdu", i + 1}, {"bytes", 100}, {"match", true}}));
  }
  EXPECT_EQ(ev.back(), (nlohmann::json{{"event", "done"}, {"sent", 3}, {"echoed", 3}}));
  EXPECT_EQ(served.status, 0) << served.err;
  EXPECT_TRUE(has(served.out, "echoed bytes=100 from=10.1.0.2 port 1790 -> 10.1.0.1 port ")) << served.out;
}

TEST(PduCommand, BadCommandLinesExitTwo) {
  CorvidTest::NetnsScope ns;  // should one be taken after all, nothing leaves the test
  CORVID_REQUIRE_NETNS(ns);
  for (auto const& args : std::vector<std::vector<std::string>>{
           {"pdu", "serve"},
           {"pdu", "send", "--to", "10.0.0.1"},
           {"pdu", "send", "--to", "10.0.0.1:1", "--md5", "10.0.0.1"},
           {"pdu", "send", "--to", "10.0.0.1:1", "--size", "19"},
       }) {
    CorvidTest::ToolResult r = CorvidTest::ToolProcess(args).finish(10);
    EXPECT_EQ(r.status, 2) << args.size() << " " << r.err;
  }
}

}  // namespace
