// HTTP(S) locations end to end through the C interface: open, read, seek and
// close on the scripted server and on nginx, every byte checked against the
// pattern at its offset.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "support/nginx_fixture.h"
#include "support/scripted_http_server.h"

using testsupport::firstPatternMismatch;
using testsupport::NginxFixture;
using testsupport::RecordedRequest;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

namespace {

constexpr long long kBlock = 32768;

// An open handle, closed at the end of the test.
class Handle {
 public:
  explicit Handle(const std::string& url) { opened = x_smart_file_open(url.c_str(), &id); }
  ~Handle() {
    if (id > 0) x_smart_file_close(id);
  }
  int id = -1;
  int opened = -1;
};

// Reads `size` bytes at the current position in pieces of `piece`; the
// bytes got, stopping at the first failure or end.
std::string readBytes(int handle, long long size, int piece, int* code) {
  std::string out;
  std::vector<char> buf(static_cast<size_t>(piece));
  *code = 0;
  while (static_cast<long long>(out.size()) < size) {
    unsigned long got = 0;
    int n = static_cast<int>(std::min<long long>(piece, size - static_cast<long long>(out.size())));
    *code = x_smart_file_read(handle, buf.data(), n, &got);
    out.append(buf.data(), got);
    if (*code != 0 || got == 0) break;
  }
  return out;
}

void expectSequentialRead(const std::string& url, long long size) {
  Handle h(url);
  ASSERT_EQ(h.opened, SMFR_OK);
  int code = 0;
  std::string bytes = readBytes(h.id, size, 50000, &code);
  ASSERT_EQ(static_cast<long long>(bytes.size()), size) << "last code " << code;
  EXPECT_EQ(firstPatternMismatch(bytes.data(), 0, size), -1);
  EXPECT_EQ(x_smart_file_size(h.id), size);
  unsigned long got = 7;
  char extra[16];
  EXPECT_EQ(x_smart_file_read(h.id, extra, sizeof(extra), &got), SMFR_EOF);
  EXPECT_EQ(got, 0u);
}

void expectRandomSeeks(const std::string& url, long long size, unsigned seed) {
  Handle h(url);
  ASSERT_EQ(h.opened, SMFR_OK);
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 25; ++i) {
    long long at = static_cast<long long>(rng() % static_cast<unsigned long long>(size));
    long long want = std::min<long long>(size - at, 1 + static_cast<long long>(rng() % 90000));
    long long cur = -1;
    ASSERT_EQ(x_smart_file_seek(h.id, at, &cur), SMFR_OK) << at;
    ASSERT_EQ(cur, at);
    int code = 0;
    std::string bytes = readBytes(h.id, want, 20000, &code);
    ASSERT_EQ(static_cast<long long>(bytes.size()), want) << "at " << at << " code " << code;
    ASSERT_EQ(firstPatternMismatch(bytes.data(), at, want), -1) << "at " << at;
  }
}

TEST(HttpSmartFile, SequentialReadGivesEveryByteThenEof) {
  ScriptedHttpServer server(Script{});
  expectSequentialRead(server.url(), 1 << 20);
}

TEST(HttpSmartFile, RandomSeeksGiveTheBytesAtEachOffset) {
  Script s;
  s.size = 6 << 20;
  ScriptedHttpServer server(s);
  expectRandomSeeks(server.url(), s.size, 11);
}

TEST(HttpSmartFile, FarSeekStartsOneRangedRequestFromTheBlockOffset) {
  Script s;
  s.size = 16 << 20;
  ScriptedHttpServer server(s);
  Handle h(server.url());
  ASSERT_EQ(h.opened, SMFR_OK);
  int code = 0;
  ASSERT_EQ(readBytes(h.id, 10000, 10000, &code).size(), 10000u);
  int before = server.requestCount();
  const long long target = 12 * 1024 * 1024 + 12345;
  long long cur = -1;
  ASSERT_EQ(x_smart_file_seek(h.id, target, &cur), SMFR_OK);
  std::string bytes = readBytes(h.id, 5000, 5000, &code);
  ASSERT_EQ(bytes.size(), 5000u);
  EXPECT_EQ(firstPatternMismatch(bytes.data(), target, 5000), -1);
  std::vector<RecordedRequest> requests = server.requests();
  ASSERT_EQ(static_cast<int>(requests.size()), before + 1);
  std::string range = requests.back().header("Range");
  EXPECT_EQ(range.rfind("bytes=" + std::to_string(target / kBlock * kBlock) + "-", 0), 0u)
      << range;
}

TEST(HttpSmartFile, DroppedConnectionsStillGiveEveryByte) {
  Script s;
  s.size = 3 << 20;
  s.dropAfter = 300000;
  s.dropTimes = 5;
  ScriptedHttpServer server(s);
  expectSequentialRead(server.url(), s.size);
  EXPECT_GT(server.requestCount(), 1);
}

TEST(HttpSmartFile, ServerWithoutRangesReadsSequentially) {
  Script s;
  s.size = 2 << 20;
  s.honourRange = false;
  ScriptedHttpServer server(s);
  expectSequentialRead(server.url(), s.size);
}

TEST(HttpSmartFile, NotFoundFailsTheRead) {
  Script s;
  s.status = 404;
  s.body = "gone";
  ScriptedHttpServer server(s);
  Handle h(server.url());
  ASSERT_EQ(h.opened, SMFR_OK);
  char buf[100];
  unsigned long got = 0;
  EXPECT_EQ(x_smart_file_read(h.id, buf, sizeof(buf), &got), SMFR_NOT_FOUND);
  EXPECT_EQ(x_smart_file_http_get_download_status(h.id), 404);
}

class NginxSmartFile : public ::testing::TestWithParam<bool> {
 protected:
  std::string urlOf(const std::string& name) {
    return GetParam() ? nginx.httpsUrl(name) : nginx.httpUrl(name);
  }
  NginxFixture nginx;
};

TEST_P(NginxSmartFile, SequentialAndRandomReadsAreByteExact) {
  CV_START_NGINX_OR_SKIP(nginx);
  nginx.addPatternFile("seq.bin", (2 << 20) + 777);
  nginx.addPatternFile("rand.bin", 5 << 20);
  expectSequentialRead(urlOf("seq.bin"), (2 << 20) + 777);
  expectRandomSeeks(urlOf("rand.bin"), 5 << 20, 29);
}

INSTANTIATE_TEST_SUITE_P(Schemes, NginxSmartFile, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& p) {
                           return p.param ? std::string("Https") : std::string("Http");
                         });

}  // namespace
