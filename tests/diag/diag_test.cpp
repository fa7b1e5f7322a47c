// The log guard, the level functions and file, and the read dump.
#include <sys/stat.h>

#include <climits>
#include <fstream>
#include <sstream>

#include "corvane/log_level.h"
#include "diag/dump_file.h"
#include "diag/log.h"
#include "diag/log_level.h"
#include "support/support.h"

namespace testsupport {
namespace {

TEST(Log, ThresholdsLevelsAndArgumentsEvaluatedOnlyWhenPrinted) {
  ASSERT_EQ(x_smart_file_get_log_level(), -4);
  for (int level : {-5, -2, 0, 3}) {
    LogCapture capture(level);
    int evaluated = 0;
    CV_LOG(level, "at %d", ++evaluated);
    CV_LOG(level + 1, "above %d", ++evaluated);
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"at 1"}) << level;
    EXPECT_EQ(evaluated, 1);
  }
  LogCapture capture(0);
  for (int level : {INT_MIN, INT_MAX, -6}) {
    x_smart_file_set_log_level(level);
    EXPECT_EQ(x_smart_file_get_log_level(), level);
  }
  CV_LOG(-5, "silenced");
  x_smart_file_disable_log();
  EXPECT_EQ(x_smart_file_get_log_level(), -1);
  CV_LOG(-1, "shown");
  CV_LOG(0, "hidden");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"shown"});
}

// Only the first two characters count; the new level is reported at -2.
TEST(Log, LevelFile) {
  const std::pair<std::string, int> contents[] = {{"-4", -4}, {"3", 3},   {"-2", -2}, {"12", 12},
                                                  {"-12", -1}, {"100", 10}, {"ab", 0},  {"", -7}};
  for (const auto& [content, level] : contents) {
    TempDir dir;
    LogCapture capture(-7);
    util::detectLoglevelFrom(dir.write("log_level", content).c_str(), dir.write("fallback", "2").c_str());
    EXPECT_EQ(util::LOG_LEV, level) << content;
    EXPECT_EQ(capture.count("Log level==" + std::to_string(level) + "\n"), level >= -2 ? 1 : 0);
  }
}

std::string slurp(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

TEST(DumpFile, OnlyWithADirectoryFileOneFilePerDump) {
  LogCapture log(-4);
  TempDir dir;
  unsigned char bytes[4] = {1, 2, 3, 4};
  util::DumpFile off;
  off.read_usb_path_from(dir.file("missing1").c_str(), dir.file("missing2").c_str());
  EXPECT_FALSE(off.isEnabled());
  long before = off.getid();
  off.read_to_file(0, bytes, 4);
  EXPECT_EQ(off.getid(), before);
  std::string target = dir.file("usb");
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  util::DumpFile dump;
  dump.read_usb_path_from(dir.file("missing").c_str(), dir.write("path.txt", target).c_str());
  ASSERT_TRUE(dump.isEnabled());
  EXPECT_TRUE(log.contains("read lumora_usb_path.txt success"));
  std::string data(100, 'x'), shorter(10, 'y');
  dump.read_to_file(4096, reinterpret_cast<unsigned char*>(&data[0]), 100);
  std::string name = target + "/QM_id1_4096_4196.dat";
  EXPECT_EQ(slurp(name), data);
  dump.dump_read_to_file(&name[0], reinterpret_cast<unsigned char*>(&shorter[0]), 10);
  EXPECT_EQ(slurp(name), shorter + std::string(90, 'x'));  // overwritten, not truncated
}

}  // namespace
}  // namespace testsupport
