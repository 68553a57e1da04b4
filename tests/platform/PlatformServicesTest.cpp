// Fennel, Glimmer and Flagset: the assertion, trace and toggle services.
#include <Fennel/Fennel.h>
#include <Flagset/Flagset.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

TEST(FennelDeathTest, MessageCarriesTheExpressionAfterMacroExpansion) {
  int connError = 0;
  EXPECT_DEATH(FENNEL_ASSERT(connError == EINPROGRESS), "Assertion failed: connError == 115");
  errno = EINTR;
  EXPECT_DEATH(FENNEL_ASSERT(errno != EINTR), "\\(\\*__errno_location \\(\\)\\) != 4");
  EXPECT_DEATH(FENNEL_ASSERT(0 && "Need to implement it"), "0 && \"Need to implement it\"");
  EXPECT_DEATH(FENNEL_ASSERT_MSG(connError == 1, "connError is %d", connError), "connError is 0");
}

TEST(Fennel, TrueAssertionEvaluatesItsExpressionOnce) {
  int calls = 0;
  FENNEL_ASSERT(++calls == 1);
  EXPECT_EQ(calls, 1);
}

TEST(Glimmer, EnabledLinesCarryFacilityAndLevelAndDisabledOnesDoNotEvaluateTheStream) {
  Glimmer::enable("GlimmerTestLoud", 4);
  auto& f = Glimmer::facility("GlimmerTestLoud");
  int evaluated = 0;
  auto touch = [&] { return ++evaluated; };
  Glimmer::Capture capture;
  GLIMMER_TRACE(f, 4, "connect: sd=" << 7);
  GLIMMER_TRACE(f, 5, "too verbose " << touch());
  EXPECT_EQ(capture.text(), "GlimmerTestLoud[4] connect: sd=7\n");
  EXPECT_EQ(evaluated, 0);
}

TEST(Glimmer, SettingSyntaxSetsRangesAndRejectsMalformedText) {
  EXPECT_TRUE(Glimmer::enable("GlimmerTestSpec=2-3"));
  auto& f = Glimmer::facility("GlimmerTestSpec");
  for (int level : {1, 2, 3, 4}) EXPECT_EQ(f.enabled(level), level == 2 || level == 3) << level;
  for (char const* bad : {"GlimmerTestSpec=9-2", "=3", "GlimmerTestSpec"}) EXPECT_FALSE(Glimmer::enable(bad)) << bad;
  EXPECT_TRUE(f.enabled(2));  // a rejected setting changes nothing
  EXPECT_TRUE(Glimmer::enable("GlimmerTestLater=0"));
  EXPECT_TRUE(Glimmer::facility("GlimmerTestLater").enabled(0));  // made after the rule
}

class Toggles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("flagset-" + std::to_string(getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
    setenv(Flagset::kToggleDirEnv, dir_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv(Flagset::kToggleDirEnv);
    std::filesystem::remove_all(dir_);
  }
  void write(std::string const& text) { std::ofstream(dir_ / "Test.json") << text; }
  std::filesystem::path dir_;
};

TEST_F(Toggles, ReadValuesOrTheDefaultWithOneStderrLineWhenTheFileIsMalformed) {
  struct Row {
    char const* text;  // of Test.json; nullptr: no file
    char const* key;
    U32 fallback, expected;
    char const* reason;  // on the one stderr line; "" for silence
  };
  Row const rows[] = {
      {R"({"On": true, "Off": false, "Level": 3})", "On", 0, 1, ""},
      {R"({"On": true, "Off": false, "Level": 3})", "Off", 1, 0, ""},
      {R"({"On": true, "Off": false, "Level": 3})", "Level", 0, 3, ""},
      {nullptr, "On", 1, 1, ""},
      {R"({"Other": true})", "On", 0, 0, ""},
      {"{\"On\": tru", "On", 1, 1, "malformed JSON"},
      {"[true]", "On", 1, 1, "not a JSON object"},
      {"{\"On\": \"yes\"}", "On", 1, 1, "neither a boolean"},
      {"{\"On\": -1}", "On", 1, 1, "neither a boolean"},
  };
  for (auto const& r : rows) {
    SCOPED_TRACE(std::string(r.text ? r.text : "(no file)") + " " + r.key);
    std::filesystem::remove(dir_ / "Test.json");
    if (r.text) write(r.text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Flagset::getToggleState(r.key, "Test.json", r.fallback), r.expected);
    std::string const err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.empty(), !*r.reason) << err;
    EXPECT_NE(err.find(r.reason), std::string::npos) << err;
    EXPECT_EQ(err.find('\n'), *r.reason ? err.size() - 1 : std::string::npos) << err;  // one line, or none
  }
}

}  // namespace
