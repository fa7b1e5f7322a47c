#include <gtest/gtest.h>

#include "diag/log.h"
#include "diag/log_level.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using testsupport::LogCapture;
using testsupport::TempDir;

namespace {

struct LevelFileCase {
  std::string content;
  int expected;
};

class LevelFile : public ::testing::TestWithParam<LevelFileCase> {};

TEST_P(LevelFile, OnlyTheFirstTwoCharactersAreParsed) {
  TempDir dir;
  LogCapture capture(-7);  // an unusual start value shows whether the file changed it
  util::detectLoglevelFrom(dir.write("log_level", GetParam().content).c_str(),
                           dir.file("fallback").c_str());
  EXPECT_EQ(util::LOG_LEV, GetParam().expected) << "content \"" << GetParam().content << "\"";
}

INSTANTIATE_TEST_SUITE_P(Contents, LevelFile,
                         ::testing::Values(LevelFileCase{"-4", -4}, LevelFileCase{"3", 3},
                                           LevelFileCase{"12", 12}, LevelFileCase{"3\n", 3},
                                           LevelFileCase{"-12", -1}, LevelFileCase{"100", 10},
                                           LevelFileCase{"ab", 0}, LevelFileCase{" 7", 7},
                                           LevelFileCase{"", -7}));

TEST(LevelFileFallback, IsOpenedButNeverRead) {
  TempDir dir;
  LogCapture capture(-3);
  util::detectLoglevelFrom(dir.file("missing").c_str(), dir.write("fallback", "2").c_str());
  EXPECT_EQ(util::LOG_LEV, -3);
  util::detectLoglevelFrom(dir.file("missing").c_str(), dir.file("missing-too").c_str());
  EXPECT_EQ(util::LOG_LEV, -3);
}

TEST(LevelFileReport, PrintedFromLevelMinusTwoWithTheResultingLevel) {
  TempDir dir;
  std::string file = dir.write("log_level", "-2");
  {
    LogCapture capture(0);
    util::detectLoglevelFrom(file.c_str(), dir.file("fallback").c_str());
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"Log level==-2\n"});
  }
  {
    LogCapture capture(0);
    util::detectLoglevelFrom(dir.write("log_level", "-3").c_str(), dir.file("fallback").c_str());
    EXPECT_TRUE(capture.texts().empty());
  }
}

}  // namespace
