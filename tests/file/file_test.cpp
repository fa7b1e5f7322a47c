// SmartFile's rules through the C interface: seeks on a stream that cannot
// be read at random, and a blocked read broken by a close.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "support/log_capture.h"
#include "support/wait.h"
#include "support/pattern_reads.h"
#include "tests/file/scripted_producer.h"

using testsupport::LogCapture;
using testsupport::ScriptedProducer;
using testsupport::waitFor;

namespace {

struct SeekCase {
  long long from;
  long long to;
  int result;
};

TEST(NonSeekable, SeeksFartherThanOneMebibyteAreBusy) {
  ScriptedProducer::Install install;
  const std::vector<SeekCase> cases = {
      {0, 1048576, SMFR_OK},       {0, 1048577, SMFR_BUSY},
      {5000000, 1048576, SMFR_OK}, {5000000, 1048577, SMFR_BUSY},
      {5000000, 6048576, SMFR_OK}, {5000000, 6048577, SMFR_BUSY},
  };
  for (const SeekCase& c : cases) {
    int h = 0;
    ASSERT_EQ(x_smart_file_open("/scripted/8000000/nonseekable", &h), SMFR_OK);
    long long cur = 0;
    // Reach `from` in steps the rules allow.
    for (long long p = 0; p < c.from;) {
      long long next = std::min(c.from, p + 1048576);
      ASSERT_EQ(x_smart_file_seek(h, next, &cur), SMFR_OK);
      p = next;
    }
    LogCapture log(0);
    cur = -1;
    EXPECT_EQ(x_smart_file_seek(h, c.to, &cur), c.result) << c.from << " -> " << c.to;
    EXPECT_EQ(cur, c.to) << "the target is written even when refused";
    EXPECT_EQ(x_smart_file_offset(h), c.result == SMFR_OK ? c.to : c.from);
    if (c.result == SMFR_BUSY) {
      EXPECT_TRUE(log.contains("lumora seek busy: range:" + std::to_string(c.to - c.from) +
                               ", new position:" + std::to_string(c.to)));
    }
    EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  }
}

TEST(NonSeekable, ReadsTheStreamInOrder) {
  ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/500000/nonseekable", &h), SMFR_OK);
  int code = 0;
  std::string got = testsupport::readBytes(h, 600000, 40000, &code);
  EXPECT_EQ(code, SMFR_EOF);
  EXPECT_TRUE(got == testsupport::patternBytes(0, 500000));
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(BlockedRead, ReturnsWhenItsHandleIsClosedFromAnotherThread) {
  ScriptedProducer::Install install;
  int h = 0;
  ASSERT_EQ(x_smart_file_open("/scripted/100000/silent", &h), SMFR_OK);
  std::atomic<bool> returned{false};
  std::atomic<int> result{99};
  std::thread reader([&] {
    char buf[1000];
    unsigned long got = 0;
    result = x_smart_file_read(h, buf, sizeof(buf), &got);
    returned = true;
  });
  EXPECT_TRUE(testsupport::staysFalse([&] { return returned.load(); }, 200));
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  EXPECT_TRUE(waitFor([&] { return returned.load(); }, 5000));
  reader.join();
  EXPECT_NE(result, SMFR_OK);
}

}  // namespace
