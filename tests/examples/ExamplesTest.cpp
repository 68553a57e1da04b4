// The README tour's examples, each run as a process the way a reader would
// run it: its exit status and the lines it must print (fnmatch patterns,
// so kernel-chosen numbers can be '*'). The expected values are the
// library's fixed texts, orders and messages; the frame's bytes were
// checked with an independent checksum computation.
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/NetnsScope.h"
#include "support/ShoalScope.h"

namespace {

// A port free on 127.0.0.1 right now.
std::string freePort() {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  close(s);
  return std::to_string(ntohs(a.sin_port));
}

std::string replaced(std::string s, std::string const& from, std::string const& to) {
  for (auto at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) s.replace(at, from.size(), to);
  return s;
}

struct Output {
  int status = -1;
  std::vector<std::string> lines;  // stdout and stderr
};

// Runs examples/NAME with args; `during` (a shell command) runs once a line
// starting with "following" appears. Bounded at 30 s.
Output run(std::string const& name, std::vector<std::string> const& args, std::string const& during) {
  char const* dir = std::getenv("CORVID_TEST_BINARY_DIR");
  std::string const path = std::string(dir ? dir : CORVID_BINARY_DIR) + "/examples/" + name;
  CorvidTest::Child child([&](int, int out) {
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(name.c_str())};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    return 127;
  });
  Output r;
  for (std::string l; !(l = child.line(30)).empty();) {  // the examples print no empty lines
    if (!during.empty() && l.rfind("following", 0) == 0) CorvidTest::sh(during);
    r.lines.push_back(l);
  }
  int const status = child.wait(5);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

struct Case {
  char const* example;
  std::vector<std::string> args;  // {ns}: a fresh named namespace; {port}: a free port
  int status;
  std::vector<char const*> lines;
  std::string setup = "", during = "";  // shell commands; {ns} as in args
};

TEST(Examples, EachPrintsWhatItShows) {
  CorvidTest::ShoalRoot shoal;
  CorvidTest::NamedNetns ns("examples");
  std::string const none = "corvid-none-" + std::to_string(getpid());
  std::vector<Case> const cases = {
      {"values", {}, 0,
       {"ipv4 10.001.2.3 -> 10.1.2.3", "ipv6 2001:DB8:0:0:0:0:0:1 -> 2001:db8::1",
        "10.0.0.0/8 contains 10.1.2.3: true", "route order: 10.1.0.0/16 10.0.0.0/8 192.168.1.0/24 0.0.0.0/0",
        "mpls built TOP ( 200 100 ) BOTTOM, read 300 entropy-indicator(7) (entropy) 16 (4 entries)",
        "intf Ethernet2 < Ethernet10: true, short Et1/2, po10 -> Port-Channel10",
        "refused 10.1.2.3/8: Invalid Prefix - non-zero after prefixlen", "refused 10.0.0.256/8: Invalid IpAddr",
        "refused TOP ( 300 BOTTOM: Invalid MplsLabelStack"}},
      {"packets", {}, 0,
       {"frame 55 bytes: 020000000002020000000001080045000029000000004011f6c0c0000201c00002020fa000070015bddb"
        "68656c6c6f2c20636f72766964",
        "checkEthIpHdr: ok", "eth 02:00:00:00:00:01 -> 02:00:00:00:00:02 type 0x800",
        "ipv4 192.0.2.1 -> 192.0.2.2 ttl 64 protocol 17 length 41", "udp 4000 -> 7 length 21 checksum valid"}},
      {"pdu_echo", {"{port}", "3"}, 0,
       {"server accepted 127.0.0.1 port {port} -> 127.0.0.1 port *", "client connected 127.0.0.1 port * -> *",
        "echo 1: 25 bytes, body 'pdu 1'", "echo 3: 25 bytes, body 'pdu 3'"}},
      // A second writer run: the id counter survives it, so a released id
      // is not handed out again.
      {"vrf_ids", {"red", "green"}, 0,
       {"writer: red is 1", "writer: green is 2", "reader: 0 -> default 1 -> red 2 -> green",
        "reader after deleting red: 0 -> default 2 -> green"}},
      {"vrf_ids", {"red", "green"}, 0,
       {"writer: red is 3", "writer: green is 2", "reader: 0 -> default 2 -> green 3 -> red"}},
      {"watch_namespace", {"{ns}", "2"}, 0,
       {"namespace {ns}", "link * v0 * up", "addr 10.9.0.1/24 dev v0",
        "neigh 10.9.0.2 dev v0 lladdr 02:00:00:00:00:02 PERMANENT", "change: addr add * 10.9.1.1/24",
        "change: neigh del * 10.9.0.2 *"},
       "ip -n {ns} link add v0 type veth peer name v1 && ip -n {ns} link set v0 up && "
       "ip -n {ns} addr add 10.9.0.1/24 dev v0 && "
       "ip -n {ns} neigh add 10.9.0.2 lladdr 02:00:00:00:00:02 dev v0 nud permanent",
       "ip -n {ns} addr add 10.9.1.1/24 dev v0 && ip -n {ns} neigh del 10.9.0.2 dev v0"},
      {"watch_namespace", {none, "1"}, 1, {"watch_namespace: cannot open netlink sockets in namespace corvid-none-*"}},
  };
  std::string const port = freePort();
  for (auto const& c : cases) {
    auto fill = [&](std::string s) { return replaced(replaced(s, "{ns}", ns.name()), "{port}", port); };
    bool const needsNs = std::find(c.args.begin(), c.args.end(), "{ns}") != c.args.end();
    if (needsNs && !ns.ok()) {
      std::cout << "[ SKIPPED  ] " << c.example << ": needs root to make a namespace\n";
      continue;
    }
    if (!c.setup.empty()) {
      ASSERT_EQ(CorvidTest::sh(fill(c.setup)), 0) << c.setup;
    }
    std::vector<std::string> args;
    for (auto const& a : c.args) args.push_back(fill(a));
    Output const r = run(c.example, args, fill(c.during));
    std::string all;
    for (auto const& l : r.lines) all += "\n  " + l;
    EXPECT_EQ(r.status, c.status) << c.example << " printed:" << all;
    for (char const* want : c.lines) {
      std::string const pattern = fill(want);
      bool const found = std::any_of(r.lines.begin(), r.lines.end(),
                                     [&](std::string const& l) { return fnmatch(pattern.c_str(), l.c_str(), 0) == 0; });
      EXPECT_TRUE(found) << c.example << ": no line matches '" << pattern << "'; printed:" << all;
    }
  }
}

}  // namespace
