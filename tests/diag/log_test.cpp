// The log guard, the level functions of the C interface and the level file.
#include <climits>

#include <gtest/gtest.h>

#include "corvane/log_level.h"
#include "diag/log.h"
#include "diag/log_level.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using testsupport::LogCapture;
using testsupport::TempDir;

namespace {

TEST(Log, DefaultLevelPrintsOnlyTheTwoMostImportantThresholds) {
  ASSERT_EQ(x_smart_file_get_log_level(), -4);
  LogCapture capture(util::LOG_LEV);
  for (int threshold : {-5, -4, -2, -1, 0, 1, 2, 3}) CV_LOG(threshold, "line at %d", threshold);
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"line at -5", "line at -4"}));
}

TEST(Log, EveryThresholdPrintsFromItsLevelOnWithTagAndDebugPriority) {
  for (int threshold : {-5, -4, -2, -1, 0, 1, 2, 3}) {
    EXPECT_EQ(testsupport::checkThreshold("guarded " + std::to_string(threshold), threshold,
                                          [&] { CV_LOG(threshold, "guarded %d", threshold); }),
              "");
  }
  LogCapture capture(0);
  int evaluated = 0;
  CV_LOG(1, "not printed %d", ++evaluated);
  EXPECT_EQ(evaluated, 0) << "arguments are evaluated only when the line prints";
  CV_LOG(0, "tagged %d", ++evaluated);
  ASSERT_EQ(capture.texts(), std::vector<std::string>{"tagged 1"});
  EXPECT_EQ(capture.lines()[0].tag, "Lumora");
  EXPECT_EQ(capture.lines()[0].priority, 3);
}

TEST(LogLevelFunctions, SetAndDisableChangeWhatPrints) {
  LogCapture capture(0);  // restores the level afterwards
  for (int level : {INT_MIN, -5, 0, INT_MAX}) {
    x_smart_file_set_log_level(level);
    EXPECT_EQ(x_smart_file_get_log_level(), level);
  }
  x_smart_file_set_log_level(-6);
  CV_LOG(-5, "silenced");
  x_smart_file_disable_log();
  EXPECT_EQ(x_smart_file_get_log_level(), -1);
  for (int threshold : {-5, -4, -2, -1, 0, 1}) CV_LOG(threshold, "t%d", threshold);
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"t-5", "t-4", "t-2", "t-1"}));
}

// Content and the level it gives.
class LevelFile : public ::testing::TestWithParam<std::pair<std::string, int>> {};

// The level is reported at threshold -2, so only when the new level is at
// least -2.
TEST_P(LevelFile, OnlyTheFirstTwoCharactersAreParsedAndTheResultIsReported) {
  TempDir dir;
  LogCapture capture(-7);  // an unusual start value shows whether the file changed it
  const auto& [content, level] = GetParam();
  util::detectLoglevelFrom(dir.write("log_level", content).c_str(), dir.file("fallback").c_str());
  EXPECT_EQ(util::LOG_LEV, level) << "content \"" << content << "\"";
  EXPECT_EQ(capture.texts(), level >= -2 ? std::vector<std::string>{"Log level==" +
                                                                   std::to_string(level) + "\n"}
                                         : std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Contents, LevelFile,
                         ::testing::ValuesIn(std::vector<std::pair<std::string, int>>{
                             {"-4", -4}, {"3", 3}, {"-2", -2}, {"-3", -3}, {"12", 12}, {"3\n", 3},
                             {"-12", -1}, {"100", 10}, {"ab", 0}, {" 7", 7}, {"", -7}}));

TEST(LevelFileFallback, IsOpenedButNeverReadAndMayBeMissing) {
  TempDir dir;
  LogCapture capture(-3);
  util::detectLoglevelFrom(dir.file("missing").c_str(), dir.write("fallback", "2").c_str());
  util::detectLoglevelFrom(dir.file("missing").c_str(), dir.file("missing-too").c_str());
  EXPECT_EQ(util::LOG_LEV, -3);
  EXPECT_TRUE(capture.texts().empty());
}

}  // namespace
