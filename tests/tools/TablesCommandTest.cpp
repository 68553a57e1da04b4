// `corvid vrf` and `corvid tables` run as an operator would, against a
// private SHOAL_ROOT.
#include <Corvid/VrfIdMap.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>

#include "support/ShoalScope.h"
#include "tools/ToolProcess.h"

namespace {

using CorvidTest::runCorvid;
using CorvidTest::ToolProcess;

class TablesCommand : public ::testing::Test {
 protected:
  CorvidTest::ShoalRoot root;
};

TEST_F(TablesCommand, VrfCommandsAllocateReleaseAndList) {
  struct Step {
    std::vector<std::string> args;
    int status;
    char const* out;
  } const steps[] = {
      {{"vrf", "add", "red"}, 0, "red 1\n"},
      {{"vrf", "add", "red"}, 0, "red 1\n"},
      {{"vrf", "add", "blue", "--json"}, 0, "{\"vrf\":\"blue\",\"vrfId\":2}\n"},
      {{"vrf", "del", "red"}, 0, "red released\n"},
      {{"vrf", "del", "red"}, 0, "red had no id\n"},
      {{"vrf", "add", "red"}, 0, "red 3\n"},
      {{"vrf", "list"}, 0, "0 default\n2 blue\n3 red\n"},
      {{"vrf", "frob"}, 2, ""},
  };
  for (auto const& s : steps) {
    auto r = runCorvid(s.args);
    EXPECT_EQ(r.status, s.status) << s.args[1] << ": " << r.err;
    EXPECT_EQ(r.out, s.out) << s.args[1];
  }
  // While another writer owns the table, the tool is refused and says who.
  auto agent = Vrf::VrfIdMap::Status::statusFactory("agent");
  ASSERT_TRUE(agent->mount("vrfIdMap/status", Shoal::MountMode::writer));
  auto r = runCorvid({"vrf", "add", "green"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already has a writer (pid " + std::to_string(getpid()) + ")"), std::string::npos) << r.err;
}

TEST_F(TablesCommand, DumpPrintsEveryEntryAsJsonLines) {
  ASSERT_EQ(runCorvid({"vrf", "add", "red"}).status, 0);
  auto r = runCorvid({"tables", "dump", "vrfIdMap/status", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::vector<nlohmann::json> objects;
  for (std::string l; std::getline(lines, l);) objects.push_back(nlohmann::json::parse(l));
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_EQ(objects[1]["collection"], "vrfIdToName");
  EXPECT_EQ(objects[1]["key"], "1");
  EXPECT_EQ(objects[1]["value"], "Value('Vrf::VrfIdMap::VrfEntry', ** {'vrfId': 1, 'vrfName': 'red'})");
  EXPECT_EQ(objects[1]["type"], "Vrf::VrfIdMap::Status");
}

TEST_F(TablesCommand, WatchPrintsMountStatusEntriesAndQuiescence) {
  // Started before the table exists: it waits, then catches up.
  ToolProcess watch({"tables", "watch", "vrfIdMap/status", "--seconds", "4", "--json"});
  usleep(200000);
  ASSERT_EQ(runCorvid({"vrf", "add", "red"}).status, 0);
  usleep(200000);
  ASSERT_EQ(runCorvid({"vrf", "del", "red"}).status, 0);
  auto r = watch.finish(10);
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::vector<std::string> events;
  std::set<std::string> entries;  // every entry event seen
  for (std::string l; std::getline(lines, l);) {
    auto j = nlohmann::json::parse(l);
    std::string e = j["event"];
    if (e == "mountStatus") e += " " + j["mountStatus"].get<std::string>();
    if (e == "quiesced") e += j["quiesced"].get<bool>() ? " true" : " false";
    if (e == "entry") e += " " + j["key"].get<std::string>() + (j["present"].get<bool>() ? " present" : " removed");
    events.push_back(e);
    if (e.rfind("entry", 0) == 0) entries.insert(e);
  }
  // The default VRF and red may arrive in one pass or two.
  std::vector<std::string> want = {"quiesced false", "mountStatus mounting", "mountStatus mounted"};
  ASSERT_GE(events.size(), 6u) << r.out;
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 3), want) << r.out;
  ASSERT_EQ(entries, (std::set<std::string>{"entry 0 present", "entry 1 present", "entry 1 removed"})) << r.out;
  auto lastEntry = std::find_if(events.rbegin(), events.rend(), [](auto const& e) { return e.rfind("entry", 0) == 0; });
  EXPECT_EQ(*lastEntry, "entry 1 removed") << r.out;
  EXPECT_NE(std::find(events.begin() + 3, events.end(), "quiesced true"), events.end()) << r.out;
}

}  // namespace
