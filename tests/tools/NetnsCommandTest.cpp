// `corvid netns` run as an operator would, checked against iproute2 and the
// kernel. Other programs may make namespaces meanwhile, so every check is
// about this test's own names, each removed by its guard also on failure.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
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
using CorvidTest::ToolResult;

bool has(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

unsigned long inodeOf(std::string const& name) {
  struct stat st;
  return stat(("/var/run/netns/" + name).c_str(), &st) == 0 ? st.st_ino : 0;
}

bool ipLists(std::string const& name) {
  return sh("ip netns list 2>/dev/null | cut -d' ' -f1 | grep -qx -- " + name) == 0;
}

}  // namespace

TEST(NetnsCommand, AddListAndDelAgreeWithIpNetns) {
  NamedNetns byIp("kni-tool"), byUs("kni-tool", false), bare("kni-tool", false);
  if (!byIp.ok()) GTEST_SKIP() << "needs root to make network namespaces";
  ToolResult const add = runCorvid({"netns", "add", byUs.name()});
  EXPECT_EQ(add.status + add.out.size() + add.err.size(), 0u) << add.err;
  EXPECT_TRUE(has(shOutput("ip -n " + byUs.name() + " -o link show lo"), "UP"));
  ASSERT_EQ(sh("touch /var/run/netns/" + bare.name()), 0);

  // JSON objects by the name they hold, one a line.
  ToolResult const json = runCorvid({"netns", "list", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  std::map<std::string, nlohmann::json> objects;
  std::istringstream jsonIn(json.out);
  for (std::string line; std::getline(jsonIn, line);) {
    auto j = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(j.is_object()) << "not one JSON object per line: " << line;
    objects[j.at("name").get<std::string>()] = j;
  }
  for (auto const* ns : {&byIp, &byUs, &bare}) {
    std::string const& n = ns->name();
    SCOPED_TRACE(n);
    EXPECT_TRUE(ipLists(n));
    ASSERT_EQ(objects.count(n), 1u);
    bool const usable = ns != &bare;
    EXPECT_EQ(objects[n].at("usable"), usable);
    EXPECT_EQ(objects[n].at("inode"), usable ? nlohmann::json(inodeOf(n)) : nlohmann::json(nullptr));
  }

  for (auto const* ns : {&byIp, &byUs, &bare}) {
    ToolResult const del = runCorvid({"netns", "del", ns->name()});
    EXPECT_EQ(del.status, 0) << del.err;
    EXPECT_FALSE(ipLists(ns->name()));
  }
}

TEST(NetnsCommand, FailuresExitOneWithTheErrnoTextAndBadCommandLinesExitTwo) {
  NamedNetns present("kni-tool"), absent("kni-tool", false);
  if (!present.ok()) GTEST_SKIP() << "needs root to make network namespaces";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;  // a part of stderr
  } const cases[] = {
      {{"netns", "del", absent.name()}, 1, "corvid netns del: " + absent.name() + ": No such file or directory"},
      {{"netns", "add", present.name()}, 1, "File exists"},
      {{"netns"}, 2, "missing list, add or del"},
      {{"netns", "del", "a", "b"}, 2, "unexpected argument 'b'"},
      {{"netns", "add", "../etc"}, 2, "invalid namespace name '../etc'"},
      {{"netns", "add", std::string(151, 'n')}, 2, "NamespaceName::value::bytes > 150 not allowed"},
  };
  for (auto const& c : cases) {
    ToolResult const r = runCorvid(c.args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_TRUE(has(r.err, c.err)) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_TRUE(ipLists(present.name())) << "refused commands must leave the namespace alone";
  EXPECT_EQ(inodeOf(absent.name()), 0u);
}
