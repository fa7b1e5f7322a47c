// A server that ignores Range and drops connections part-way, through the C
// interface: every restart begins at 0 and must carry the stream on from the
// end of the data held, byte-exact, within a bounded time.
#include <atomic>
#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "source/smart_file_reading.h"
#include "support/scripted_http_server.h"
#include "support/wait.h"

using testsupport::firstPatternMismatch;
using testsupport::Handle;
using testsupport::readBytes;
using testsupport::Script;
using testsupport::ScriptedHttpServer;
using testsupport::waitFor;

namespace {

struct DropCase {
  const char* name;
  long long size;
  long long dropAfter;
  int dropTimes;
  long long readTotal;  // bytes read from 0 in pieces of `piece`
  int piece;
};

const DropCase kDropCases[] = {
    {"two drops inside the first block span", 5 << 20, 200000, 2, 240000, 60000},
    {"one drop, then the whole content", 1 << 20, 300000, 1, 1 << 20, 50000},
    {"drops past the buffer's reach", 3 << 20, 700000, 3, 3 << 20, 64000},
};

class NonSeekableDropTest : public ::testing::TestWithParam<DropCase> {};

TEST_P(NonSeekableDropTest, ReadsEveryByteAfterDrops) {
  const DropCase& c = GetParam();
  Script s;
  s.size = c.size;
  s.honourRange = false;
  s.dropAfter = c.dropAfter;
  s.dropTimes = c.dropTimes;
  ScriptedHttpServer server(s);
  Handle h(server.url("/f"));
  ASSERT_EQ(h.opened, SMFR_OK);
  ASSERT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);

  std::string bytes;
  int code = 0;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    bytes = readBytes(h.id, c.readTotal, c.piece, &code);
    done = true;
  });
  // A hang fails the test instead of the run: closing breaks a blocked read.
  bool finished = waitFor([&] { return done.load(); }, 30000);
  if (!finished) h.close();
  reader.join();
  ASSERT_TRUE(finished) << "read still blocked after 30 s, got " << bytes.size();
  ASSERT_EQ(static_cast<long long>(bytes.size()), c.readTotal) << "last code " << code;
  EXPECT_EQ(firstPatternMismatch(bytes.data(), 0, c.readTotal), -1);
  // Bounded restarts: one per drop and a few spare, never a storm.
  EXPECT_LE(static_cast<int>(server.requestCount()), c.dropTimes + 4);
}

// Runs `body` on its own thread; false when it is still blocked after
// `ms` (the handle is then closed, which breaks the blocked read).
template <typename Body>
bool finishesWithin(Handle& h, int ms, Body body) {
  std::atomic<bool> done{false};
  std::thread t([&] {
    body();
    done = true;
  });
  bool finished = waitFor([&] { return done.load(); }, ms);
  if (!finished) h.close();
  t.join();
  return finished;
}

// A server that drops every connection before the wanted offset: the read
// fails within a bounded time after a bounded number of tries.
TEST(NonSeekableRestart, ServerThatNeverGetsThereFailsTheRead) {
  Script s;
  s.size = 1 << 20;
  s.honourRange = false;
  s.dropAfter = 200000;
  s.dropTimes = -1;
  ScriptedHttpServer server(s);
  Handle h(server.url("/f"));
  ASSERT_EQ(h.opened, SMFR_OK);
  ASSERT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);
  std::string bytes;
  int code = 0;
  ASSERT_TRUE(finishesWithin(h, 30000, [&] { bytes = readBytes(h.id, 300000, 60000, &code); }));
  EXPECT_EQ(firstPatternMismatch(bytes.data(), 0, static_cast<long long>(bytes.size())), -1);
  EXPECT_LT(static_cast<long long>(bytes.size()), 300000);
  EXPECT_NE(code, SMFR_OK);
  EXPECT_LE(server.requestCount(), 10);
}

INSTANTIATE_TEST_SUITE_P(Drops, NonSeekableDropTest, ::testing::ValuesIn(kDropCases),
                         [](const ::testing::TestParamInfo<DropCase>& param) {
                           std::string n;
                           for (const char* p = param.param.name; *p; ++p) {
                             n += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                           }
                           return n;
                         });

}  // namespace
