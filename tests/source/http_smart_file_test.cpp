// HTTP(S) locations end to end through the C interface: open, read, seek and
// close on the scripted server and on nginx, every byte checked against the
// pattern at its offset; the HTTP options set through the handle as the
// server sees them.
#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "source/smart_file_reading.h"
#include "support/log_capture.h"
#include "support/nginx_fixture.h"
#include "support/scripted_http_server.h"

using testsupport::expectRandomSeeks;
using testsupport::expectSequentialRead;
using testsupport::firstPatternMismatch;
using testsupport::Handle;
using testsupport::LogCapture;
using testsupport::NginxFixture;
using testsupport::readBytes;
using testsupport::RecordedRequest;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

namespace {

constexpr long long kBlock = 32768;

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

// One transfer as the library logged it: where it started and how it ended.
struct Transfer {
  std::string url;
  long long start;
  int result;  // executeGet's result; 1000 while unknown
};

std::vector<Transfer> transfersIn(const LogCapture& log) {
  std::vector<Transfer> out;
  const std::string perform = "PFFFF begin to perform(url: ";
  for (const std::string& t : log.texts()) {
    size_t at = t.find(perform);
    if (at != std::string::npos) {
      size_t urlEnd = t.find(", start: ", at);
      out.push_back({t.substr(at + perform.size(), urlEnd - at - perform.size()),
                     std::stoll(t.substr(urlEnd + 9)), 1000});
    } else if (t.rfind("errorCode:", 0) == 0 && !out.empty()) {
      out.back().result = std::stoi(t.substr(10));
    }
  }
  return out;
}

// After a transfer the server cut (partial file, 18: all its bytes reached
// the queue) the next transfer of the sequential reader starts exactly where
// the cut one ended: later would leave a gap, earlier fetches held bytes
// again.
void expectDropsResumeAtTheirEnd(const LogCapture& log, const std::string& url, long long n) {
  std::vector<Transfer> all;
  for (const Transfer& t : transfersIn(log)) {
    if (t.url == url) all.push_back(t);
  }
  int drops = 0;
  for (size_t i = 0; i + 1 < all.size(); ++i) {
    if (all[i].result != 18) continue;
    ++drops;
    EXPECT_EQ(all[i + 1].start, all[i].start + n)
        << url << ": transfer " << i + 1 << " after the drop of the one from " << all[i].start;
  }
  EXPECT_GT(drops, 0) << url;
}

// A server that closes every connection after N bytes: the whole content
// still comes out byte-exact to a sequential and to a random reader, and the
// sequential reader's connections resume where the dropped ones ended.
class DroppingServer : public ::testing::TestWithParam<long long> {};

TEST_P(DroppingServer, WholeContentAndEachReconnectionStartsWhereTheHeldDataEnds) {
  const long long n = GetParam();
  Script s;
  s.size = 32 << 20;
  s.dropAfter = n;
  ScriptedHttpServer server(s);
  LogCapture log(0);
  expectSequentialRead(server.url("/seq"), s.size);
  expectDropsResumeAtTheirEnd(log, server.url("/seq"), n);
  // Seeks end most connections here: the bytes are what counts.
  expectRandomSeeks(server.url("/rand"), s.size, 7);
}

INSTANTIATE_TEST_SUITE_P(DropAfter, DroppingServer, ::testing::Values(100 << 10, 1 << 20),
                         [](const ::testing::TestParamInfo<long long>& p) {
                           return std::to_string(p.param >> 10) + "KiB";
                         });

// Servers that do not say how much they send: every byte, then the end of
// content at the real size, from the one connection that brought it all.
struct SizeCase {
  const char* name;
  bool honourRange;
  bool contentLength;
  bool chunked;
  bool unknownTotal;
};

void PrintTo(const SizeCase& c, std::ostream* os) { *os << c.name; }

class SizeAnswer : public ::testing::TestWithParam<SizeCase> {};

TEST_P(SizeAnswer, SequentialReadEndsAtTheRealSize) {
  const SizeCase& c = GetParam();
  Script s;
  s.size = (2 << 20) + 4321;
  s.honourRange = c.honourRange;
  s.contentLength = c.contentLength;
  s.chunked = c.chunked;
  s.unknownTotal = c.unknownTotal;
  ScriptedHttpServer server(s);
  expectSequentialRead(server.url(), s.size);
  EXPECT_EQ(server.requestCount(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, SizeAnswer,
    ::testing::Values(SizeCase{"RangesIgnored", false, true, false, false},
                      SizeCase{"NoLength", false, false, false, false},
                      SizeCase{"Chunked", false, false, true, false},
                      SizeCase{"ChunkedPartial", true, false, true, false},
                      SizeCase{"TotalUnknown", true, false, false, true}),
    [](const ::testing::TestParamInfo<SizeCase>& p) { return std::string(p.param.name); });

TEST(HttpSmartFile, OptionsSetThroughTheHandleReachTheWire) {
  ScriptedHttpServer server(Script{});
  int code = 0;
  {
    Handle h(server.url("/opts"));
    ASSERT_EQ(h.opened, SMFR_OK);
    EXPECT_EQ(x_smart_file_http_set_userAgent(h.id, "CorvaneTest/2"), SMFR_OK);
    EXPECT_EQ(x_smart_file_http_set_cookie(h.id, "k=v; w=z"), SMFR_OK);
    EXPECT_EQ(readBytes(h.id, 1000, 1000, &code).size(), 1000u);
    std::vector<RecordedRequest> requests = server.requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0].header("User-Agent"), "CorvaneTest/2");
    EXPECT_EQ(requests[0].header("Cookie"), "k=v; w=z");
  }
  {
    // The scripted server stands in as the proxy: it gets the absolute URL.
    const std::string target = "http://corvane-proxy-target.invalid/through";
    Handle h(target);
    ASSERT_EQ(h.opened, SMFR_OK);
    std::string proxy = "http://127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(x_smart_file_http_set_proxy(h.id, proxy.c_str()), SMFR_OK);
    std::string bytes = readBytes(h.id, 1000, 1000, &code);
    EXPECT_EQ(bytes.size(), 1000u) << code;
    bool seen = false;
    for (const RecordedRequest& r : server.requests()) seen = seen || r.target == target;
    EXPECT_TRUE(seen);
  }
  {
    // 400 KiB at 200 KiB/s take about two seconds; unlimited they take
    // milliseconds on loopback.
    Handle h(server.url("/limited"));
    ASSERT_EQ(h.opened, SMFR_OK);
    EXPECT_EQ(x_smart_file_http_set_speed(h.id, 200 * 1024), SMFR_OK);
    auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(readBytes(h.id, 400 << 10, 50000, &code).size(), 400u << 10);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    EXPECT_GT(seconds, 1.4);
    EXPECT_LT(seconds, 10.0);
  }
  ScriptedHttpServer server6(Script{}, true);
  if (!server6.ok()) GTEST_SKIP() << "no IPv6 loopback here";
  Handle h(server6.url("/v6"));
  ASSERT_EQ(h.opened, SMFR_OK);
  EXPECT_EQ(x_smart_file_http_set_ip_resolve(h.id, "IPv6"), SMFR_OK);
  std::string bytes = readBytes(h.id, 1000, 1000, &code);
  EXPECT_EQ(bytes.size(), 1000u) << code;
  EXPECT_EQ(server6.requestCount(), 1);
  char ip[64] = {0};
  EXPECT_EQ(x_smart_file_http_get_url_ip(h.id, ip), SMFR_OK);
  EXPECT_STREQ(ip, "::1");
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
