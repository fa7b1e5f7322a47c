// The read dump: switched on by a directory file, one file per dump.
#include "diag/dump_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using testsupport::LogCapture;
using testsupport::TempDir;

std::string slurp(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

TEST(DumpFile, NoDirectoryFileMeansNoDumpAndNoLog) {
  LogCapture log(3);
  TempDir dir;
  util::DumpFile dump;
  dump.read_usb_path_from(dir.file("missing1").c_str(), dir.file("missing2").c_str());
  EXPECT_FALSE(dump.isEnabled());
  unsigned char data[4] = {1, 2, 3, 4};
  long before = dump.getid();
  dump.read_to_file(0, data, 4);
  EXPECT_EQ(before, dump.getid());
  EXPECT_TRUE(log.lines().empty());
}

TEST(DumpFile, FirstDumpIsNamedAfterNumberAndRangeAndOverwritesWithoutTruncating) {
  LogCapture log(-4);
  TempDir dir;
  std::string target = dir.path() + "/usb";
  ASSERT_EQ(0, mkdir(target.c_str(), 0755));
  util::DumpFile dump;  // the fallback file is used when the first is missing
  dump.read_usb_path_from(dir.file("missing").c_str(), dir.write("path.txt", target).c_str());
  ASSERT_TRUE(dump.isEnabled());
  EXPECT_TRUE(log.contains("read lumora_usb_path.txt success"));
  std::string data(100, 'x'), shorter(10, 'y');
  dump.read_to_file(4096, reinterpret_cast<unsigned char*>(&data[0]), 100);
  std::string name = target + "/QM_id1_4096_4196.dat";
  EXPECT_EQ(data, slurp(name));
  EXPECT_TRUE(log.contains("SmartFile readed=100, id:1"));
  dump.dump_read_to_file(&name[0], reinterpret_cast<unsigned char*>(&shorter[0]), 10);
  EXPECT_EQ(shorter + std::string(90, 'x'), slurp(name));
}

TEST(DumpFile, LineFeedStaysInTheDirectoryAndAnUnwritableTargetIsOnlyLogged) {
  LogCapture log(-4);
  TempDir dir;
  std::string missing = dir.path() + "/no/such/dir\n";
  std::string pathFile = dir.write("path.txt", missing);
  util::DumpFile dump;
  dump.read_usb_path_from(pathFile.c_str(), pathFile.c_str());
  EXPECT_EQ(missing, std::string(dump.getDirectory()));
  unsigned char data[3] = {1, 2, 3};
  dump.read_to_file(0, data, 3);
  EXPECT_EQ(1, log.countPrefix("open " + missing + "/QM_id"));
}

}  // namespace
