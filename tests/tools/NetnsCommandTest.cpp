// `corvid netns` run as an operator would, checked against iproute2 and the
// kernel: what the tool makes `ip netns` lists (and the other way round),
// the inodes it prints are the namespaces', errors carry the errno text and
// exit 1, bad command lines exit 2. Other programs may make namespaces
// while this runs, so every check is about this test's own names, each
// removed by its NamedNetns guard also on failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/NetnsScope.h"
#include "tools/ToolProcess.h"

namespace {

using CorvidTest::NamedNetns;
using CorvidTest::runCorvid;
using CorvidTest::sh;
using CorvidTest::shOutput;
using CorvidTest::ToolProcess;
using CorvidTest::ToolResult;

std::string shown(ToolResult const& r) {
  return "status " + std::to_string(r.status) + (r.timedOut ? " (timed out)" : "") + "\n--- stdout\n" + r.out +
         "--- stderr\n" + r.err;
}

#define RUN(r, ...)                            \
  ToolResult const r = runCorvid(__VA_ARGS__); \
  SCOPED_TRACE(shown(r))

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

std::string pathOf(std::string const& name) { return "/var/run/netns/" + name; }

unsigned long inodeOf(std::string const& name) {
  struct stat st;
  return stat(pathOf(name).c_str(), &st) == 0 ? st.st_ino : 0;
}

// The names `ip netns list` prints (first word of each line).
std::vector<std::string> ipNames() {
  std::vector<std::string> names;
  std::istringstream in(shOutput("ip netns list 2>/dev/null"));
  std::string line;
  while (std::getline(in, line)) names.push_back(line.substr(0, line.find(' ')));
  return names;
}

bool contains(std::vector<std::string> const& v, std::string const& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

// The line our plain list prints for `name`, or "".
std::string listLine(std::string const& out, std::string const& name) {
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(name + " ", 0) == 0) return line;
  }
  return "";
}

class NetnsCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string const binary = CorvidTest::corvidBinary();
    ASSERT_FALSE(binary.empty()) << "set CORVID_TEST_BINARY_DIR to the build directory";
    ASSERT_EQ(access(binary.c_str(), X_OK), 0) << binary << " is not built";
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
  }
};

}  // namespace

TEST_F(NetnsCommand, AddMakesANamespaceIpListsWithLoopbackUpAndDelRemovesIt) {
  NamedNetns ns("kni-tool", false);
  {
    RUN(r, {"netns", "add", ns.name()});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
  }
  EXPECT_TRUE(contains(ipNames(), ns.name()));
  EXPECT_TRUE(has(shOutput("ip -n " + ns.name() + " -o link show lo"), "UP"));
  {
    RUN(r, {"netns", "del", ns.name()});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
  }
  EXPECT_FALSE(contains(ipNames(), ns.name()));
  EXPECT_EQ(inodeOf(ns.name()), 0u);
}

TEST_F(NetnsCommand, ListAgreesWithIpNetnsListAndPrintsEachNamespacesInode) {
  NamedNetns byIp("kni-tool");
  ASSERT_TRUE(byIp.ok());
  NamedNetns byUs("kni-tool", false);
  ASSERT_EQ(runCorvid({"netns", "add", byUs.name()}).status, 0);
  NamedNetns bare("kni-tool", false);
  ASSERT_EQ(sh("touch " + pathOf(bare.name())), 0);

  RUN(plain, {"netns", "list"});
  RUN(json, {"netns", "list", "--json"});
  ASSERT_EQ(plain.status, 0);
  ASSERT_EQ(json.status, 0);
  EXPECT_EQ(plain.err + json.err, "");
  std::vector<std::string> const ip = ipNames();

  std::map<std::string, nlohmann::json> objects;
  std::istringstream lines(json.out);
  std::string line;
  while (std::getline(lines, line)) {
    auto j = nlohmann::json::parse(line, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << "not one JSON object per line: " << line;
    objects[j.at("name").get<std::string>()] = j;
  }

  struct Case {
    std::string name;
    bool usable;
  } const cases[] = {{byIp.name(), true}, {byUs.name(), true}, {bare.name(), false}};
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(contains(ip, c.name)) << "ip netns list must show it too";
    ASSERT_EQ(objects.count(c.name), 1u);
    nlohmann::json const& j = objects[c.name];
    EXPECT_EQ(j.at("usable"), c.usable);
    if (c.usable) {
      EXPECT_EQ(listLine(plain.out, c.name), c.name + " inode " + std::to_string(inodeOf(c.name)));
      EXPECT_EQ(j.at("inode"), inodeOf(c.name));
      EXPECT_NE(j.at("inode"), 0u);
    } else {
      EXPECT_EQ(listLine(plain.out, c.name), c.name + " (not mounted)");
      EXPECT_TRUE(j.at("inode").is_null());
    }
  }
  EXPECT_NE(objects[byIp.name()].at("inode"), objects[byUs.name()].at("inode"));

  // And del removes what ip made, bare entries included.
  for (auto const* n : {&byIp, &bare}) {
    EXPECT_EQ(runCorvid({"netns", "del", n->name()}).status, 0) << n->name();
    EXPECT_FALSE(contains(ipNames(), n->name()));
  }
}

TEST_F(NetnsCommand, FailuresAndBadCommandLinesExitWithTheirStatusAndAClearMessage) {
  NamedNetns present("kni-tool");
  ASSERT_TRUE(present.ok());
  NamedNetns absent("kni-tool", false);
  std::string const tooLong(151, 'n');
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;  // a part of stderr
  } const cases[] = {
      {{"netns", "del", absent.name()}, 1, "corvid netns del: " + absent.name() + ": No such file or directory"},
      {{"netns", "add", present.name()}, 1, "File exists"},
      {{"netns"}, 2, "missing list, add or del"},
      {{"netns", "show"}, 2, "unknown netns command 'show'"},
      {{"netns", "add"}, 2, "missing NAME for add"},
      {{"netns", "del", "a", "b"}, 2, "unexpected argument 'b'"},
      {{"netns", "add", "../etc"}, 2, "invalid namespace name '../etc'"},
      {{"netns", "add", ".."}, 2, "invalid namespace name"},
      {{"netns", "del", "--json"}, 2, "invalid namespace name"},
      {{"netns", "add", tooLong}, 2, "NamespaceName::value::bytes > 150 not allowed"},
      {{"netns", "list", "extra"}, 2, "unexpected argument 'extra'"},
  };
  for (auto const& c : cases) {
    RUN(r, c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(has(r.err, c.err)) << c.err;
    EXPECT_EQ(r.out, "");
    if (c.status == 2) {
      EXPECT_TRUE(has(r.err, "usage: corvid netns (list [--json] | add NAME | del NAME)\n"));
    }
  }
  EXPECT_TRUE(contains(ipNames(), present.name())) << "a refused add must leave the namespace alone";
  EXPECT_EQ(inodeOf(absent.name()), 0u);
  EXPECT_EQ(inodeOf(tooLong), 0u);
}

TEST_F(NetnsCommand, WithoutRootAddAndDelFailWithTheErrnoTextAndListStillWorks) {
  NamedNetns present("kni-tool");
  ASSERT_TRUE(present.ok());
  NamedNetns wanted("kni-tool", false);
  auto asNobody = [](std::vector<std::string> args) {
    std::vector<std::string> full = {"--reuid=65534", "--regid=65534", "--clear-groups", CorvidTest::corvidBinary()};
    full.insert(full.end(), args.begin(), args.end());
    return ToolProcess(full, "/usr/bin/setpriv").finish();
  };
  if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "needs setpriv to drop root";
  struct Case {
    std::vector<std::string> args;
    std::string err;
  } const cases[] = {
      {{"netns", "add", wanted.name()}, "Permission denied (run as root)"},
      {{"netns", "del", present.name()}, "(run as root)"},
  };
  for (auto const& c : cases) {
    ToolResult const r = asNobody(c.args);
    SCOPED_TRACE(shown(r));
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, c.err)) << c.err;
  }
  EXPECT_EQ(inodeOf(wanted.name()), 0u);
  EXPECT_TRUE(contains(ipNames(), present.name()));
  ToolResult const list = asNobody({"netns", "list"});
  SCOPED_TRACE(shown(list));
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(listLine(list.out, present.name()), present.name() + " inode " + std::to_string(inodeOf(present.name())));
}

TEST(NetnsCommandHelp, HelpListsTheSubcommandAndItsUsage) {
  std::string const synopsis = "netns (list [--json] | add NAME | del NAME)";
  {
    RUN(r, {"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(has(r.out, "\n  " + synopsis + "\n"));
  }
  RUN(r, {"netns", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: corvid " + synopsis + "\n", 0), 0u);
}
