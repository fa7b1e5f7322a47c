#include <climits>

#include <gtest/gtest.h>

#include "corvane/log_level.h"
#include "diag/log.h"
#include "support/log_capture.h"

using testsupport::checkThreshold;
using testsupport::LogCapture;

namespace {

TEST(Log, DefaultLevelPrintsOnlyTheTwoMostImportantThresholds) {
  ASSERT_EQ(x_smart_file_get_log_level(), -4);
  LogCapture capture(util::LOG_LEV);
  for (int threshold : {-5, -4, -2, -1, 0, 1, 2, 3}) CV_LOG(threshold, "line at %d", threshold);
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"line at -5", "line at -4"}));
}

TEST(Log, EveryThresholdPrintsFromItsLevelOnWithTagAndDebugPriority) {
  for (int threshold : {-5, -4, -2, -1, 0, 1, 2, 3}) {
    EXPECT_EQ(checkThreshold("guarded " + std::to_string(threshold), threshold,
                             [&] { CV_LOG(threshold, "guarded %d", threshold); }),
              "");
  }
  LogCapture capture(0);
  CV_LOG(0, "tagged");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].tag, "Lumora");
  EXPECT_EQ(capture.lines()[0].priority, 3);
}

TEST(Log, ArgumentsAreEvaluatedOnlyWhenTheLineIsPrinted) {
  int evaluated = 0;
  auto sideEffect = [&] { return ++evaluated; };
  LogCapture capture(0);
  CV_LOG(1, "not printed %d", sideEffect());
  EXPECT_EQ(evaluated, 0);
  CV_LOG(0, "printed %d", sideEffect());
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(capture.contains("printed 1"));
}

TEST(LogLevelFunctions, SetAcceptsAnyIntAndGetReturnsIt) {
  LogCapture capture(0);  // restores the level afterwards
  for (int level : {INT_MIN, -100, -5, 0, 3, 100, INT_MAX}) {
    x_smart_file_set_log_level(level);
    EXPECT_EQ(x_smart_file_get_log_level(), level);
    EXPECT_EQ(util::LOG_LEV, level);
  }
  x_smart_file_set_log_level(-6);
  CV_LOG(-5, "silenced");
  x_smart_file_set_log_level(4);
  CV_LOG(3, "everything");
  EXPECT_FALSE(capture.contains("silenced"));
  EXPECT_TRUE(capture.contains("everything"));
}

TEST(LogLevelFunctions, DisableSetsMinusOneWhichStillPrintsTheImportantLines) {
  LogCapture capture(3);
  x_smart_file_disable_log();
  EXPECT_EQ(x_smart_file_get_log_level(), -1);
  for (int threshold : {-5, -4, -2, -1, 0, 1}) CV_LOG(threshold, "t%d", threshold);
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"t-5", "t-4", "t-2", "t-1"}));
}

}  // namespace
