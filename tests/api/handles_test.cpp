// The handle table of the C interface: numbering, limits, refused handles
// and locations, and the answers of HTTP calls on a local file.
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "support/log_capture.h"
#include "support/pattern_reads.h"

using testsupport::LogCapture;
using testsupport::TempDir;

namespace {

TEST(Handles, NumberedFromOneUpTo255AndTheLowestFreeSlotIsReused) {
  TempDir dir;
  std::string path = testsupport::writePatternFile(dir, "f", 1000);
  std::vector<int> handles;
  for (int i = 0; i < 255; ++i) {
    int h = 0;
    ASSERT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_OK);
    handles.push_back(h);
    EXPECT_EQ(h, i + 1);
  }
  {
    LogCapture log(0);
    int h = 0;
    EXPECT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_FAILED);
    EXPECT_EQ(h, -1);
    EXPECT_TRUE(log.contains("open too many file, exceed the limitation 255\n"));
    EXPECT_TRUE(log.contains("alloc file handle fail"));
    EXPECT_TRUE(log.contains("End x_smart_file_open(handle: -1)"));
  }
  EXPECT_EQ(x_smart_file_close(7), SMFR_OK);
  EXPECT_EQ(x_smart_file_close(7), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_offset(7), SMFR_FAILED);
  // Another location, so a file of its own: its buffer is the request
  // rounded down to blocks.
  int again = 0;
  ASSERT_EQ(x_smart_file_open_x(testsupport::writePatternFile(dir, "g", 200000).c_str(), &again,
                                100000),
            SMFR_OK);
  EXPECT_EQ(again, 7);
  EXPECT_EQ(x_smart_file_bufferSize(again), 98304);
  EXPECT_EQ(x_smart_file_volatile(again), SMFR_OK);
  for (int h : handles) EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(Handles, OutOfRangeHandlesAreRefusedWithInvalidHandle) {
  char buf[4];
  unsigned long got = 0;
  long long cur = 0;
  int req = 0;
  const std::vector<std::pair<const char*, std::function<long long(int)>>> calls = {
      {"close", [](int h) { return x_smart_file_close(h); }},
      {"read", [&](int h) { return x_smart_file_read(h, buf, 4, &got); }},
      {"read_async", [&](int h) { return x_smart_file_read_async(h, buf, 4, nullptr, nullptr, &req); }},
      {"read_abort", [](int h) { return x_smart_file_read_abort(h, 1); }},
      {"seek", [&](int h) { return x_smart_file_seek(h, 0, &cur); }},
      {"offset", [](int h) { return x_smart_file_offset(h); }},
      {"size", [](int h) { return x_smart_file_size(h); }},
      {"volatile", [](int h) { return x_smart_file_volatile(h); }},
      {"bufferSize", [](int h) { return x_smart_file_bufferSize(h); }},
      {"bufferedSize", [](int h) { return x_smart_file_bufferedSize(h); }},
      {"featureflag", [](int h) { return x_smart_file_set_featureflag(h, 1); }},
      {"get_speed", [](int h) { return x_smart_file_http_get_speed(h); }},
      {"set_proxy", [](int h) { return x_smart_file_http_set_proxy(h, "p"); }},
  };
  // Handle 200 is in range but was never opened: -4 without that line.
  for (int handle : {0, 256, -1, 200}) {
    for (const auto& [name, call] : calls) {
      LogCapture log(0);
      EXPECT_EQ(call(handle), SMFR_FAILED) << name << " " << handle;
      EXPECT_EQ(log.count("INVALID_HANDLE\n"), handle == 200 ? 0 : 1) << name << " " << handle;
    }
  }
  LogCapture log(0);
  EXPECT_EQ(x_smart_file_close(200), SMFR_FAILED);
  EXPECT_TRUE(log.contains("x_smart_file_close exit"));
  EXPECT_EQ(x_smart_file_seek(200, 0, &cur), SMFR_FAILED);
  EXPECT_TRUE(log.contains("x_smart_file_seek end(SMFR_FAILED)"));
}

// An absolute path is accepted even when nothing is there: that handle's
// calls fail.
TEST(Handles, LocationChecksAndAMissingPathGivesAHandleWhoseCallsFail) {
  TempDir dir;
  std::string path = testsupport::writePatternFile(dir, "f", 10);
  const std::vector<std::pair<const char*, int>> cases = {
      {"HTTP://127.0.0.1:1/a", SMFR_OK}, {"hTtPs://127.0.0.1:1/a", SMFR_OK},
      {path.c_str(), SMFR_OK},           {"file:///tmp/x", SMFR_FAILED},
      {"ftp://127.0.0.1/x", SMFR_FAILED}, {"relative/path", SMFR_FAILED},
      {"", SMFR_FAILED},                 {"http:/x", SMFR_FAILED},
  };
  for (const auto& [url, result] : cases) {
    LogCapture log(-4);
    int h = 12345;
    EXPECT_EQ(x_smart_file_open(url, &h), result) << url;
    if (result == SMFR_OK) {
      EXPECT_GE(h, 1);
      EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
    } else {
      EXPECT_EQ(h, 12345) << "nothing written on a refused URL";
      EXPECT_TRUE(log.contains("url is invalid")) << url;
    }
  }
  LogCapture log(0);
  int h = 0;
  EXPECT_EQ(x_smart_file_open(nullptr, &h), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_open(path.c_str(), nullptr), SMFR_FAILED);
  EXPECT_EQ(log.count("NULL POINT\n"), 2);

  ASSERT_EQ(x_smart_file_open(dir.file("absent").c_str(), &h), SMFR_OK);
  char buf[16];
  unsigned long got = 0;
  long long cur = 0;
  int req = 0;
  for (int r : {x_smart_file_read(h, buf, 16, &got), x_smart_file_seek(h, 0, &cur),
                static_cast<int>(x_smart_file_size(h)), x_smart_file_bufferSize(h),
                x_smart_file_read_async(h, buf, 16, nullptr, nullptr, &req)}) {
    EXPECT_EQ(r, SMFR_FAILED);
  }
  EXPECT_EQ(x_smart_file_offset(h), 0);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

// Arguments no caller should pass get a code, never a crash or a hang.
TEST(Handles, BadArgumentsGetACode) {
  TempDir dir;
  const long long size = 100000;
  std::string path = testsupport::writePatternFile(dir, "f", size);
  // Buffer sizes: below two blocks the queue takes two; beyond what a device
  // can hold the open is refused and the handle's calls fail.
  const std::vector<std::pair<int, bool>> buffers = {
      {0, true}, {-1, true}, {-100000, true}, {INT_MIN, true}, {1, true}, {INT_MAX, false}};
  for (const auto& [buffer, works] : buffers) {
    int h = 0;
    ASSERT_EQ(x_smart_file_open_x(path.c_str(), &h, buffer), SMFR_OK) << buffer;
    char buf[1000];
    unsigned long got = 0;
    int r = x_smart_file_read(h, buf, sizeof(buf), &got);
    if (works) {
      EXPECT_EQ(r, SMFR_OK) << buffer;
      EXPECT_EQ(testsupport::patternMismatches(buf, 0, static_cast<long long>(got)), 0);
      EXPECT_EQ(got, sizeof(buf)) << buffer;
    } else {
      EXPECT_EQ(r, SMFR_FAILED) << buffer;
      EXPECT_EQ(x_smart_file_size(h), SMFR_FAILED) << buffer;
    }
    EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  }
  int h = testsupport::openPatternFile(dir, size);
  ASSERT_GE(h, 1);
  char buf[100];
  unsigned long got = 7;
  long long cur = 55;
  int req = 0;
  ASSERT_EQ(x_smart_file_seek(h, 500, &cur), SMFR_OK);
  // A negative offset is refused and the position stays.
  for (long long offset : {-1LL, -32769LL, LLONG_MIN}) {
    EXPECT_EQ(x_smart_file_seek(h, offset, &cur), SMFR_FAILED) << offset;
    EXPECT_EQ(x_smart_file_offset(h), 500);
  }
  // A negative size or a missing buffer is refused before anything is read.
  EXPECT_EQ(x_smart_file_read(h, buf, -1, &got), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read(h, nullptr, 10, &got), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read(h, buf, 10, nullptr), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read_async(h, buf, -5, nullptr, nullptr, &req), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read_async(h, buf, 10, nullptr, nullptr, nullptr), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_offset(h), 500);
  EXPECT_EQ(x_smart_file_read(h, buf, sizeof(buf), &got), SMFR_OK);
  EXPECT_EQ(testsupport::patternMismatches(buf, 500, sizeof(buf)), 0);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(Handles, HttpCallsOnALocalFileTakeTheirNotHttpAnswers) {
  TempDir dir;
  int h = testsupport::openPatternFile(dir, 100);
  ASSERT_GE(h, 1);
  LogCapture log(0);
  EXPECT_EQ(x_smart_file_set_featureflag(h, 1), SMFR_OK);
  EXPECT_TRUE(log.contains("not http file"));
  EXPECT_EQ(x_smart_file_http_get_speed(h), 0);
  EXPECT_EQ(x_smart_file_http_set_speed(h, 1000), SMFR_OK);
  EXPECT_EQ(x_smart_file_http_get_content_type(h), nullptr);
  EXPECT_EQ(x_smart_file_http_get_server_name(h), nullptr);
  char ip[64] = {0};
  EXPECT_EQ(x_smart_file_http_get_url_ip(h, ip), SMFR_NOT_HTTP);
  int length = 7;
  char header[16];
  EXPECT_EQ(x_smart_file_http_get_header(h, header, 16, &length), SMFR_OK);
  EXPECT_NE(x_smart_file_http_get_download_status(h), 200);
  // The last four setters test their argument before the handle.
  const struct {
    int (*fn)(int, const char*);
    bool nullFailsFirst;
  } setters[] = {
      {x_smart_file_http_set_userAgent, false},  {x_smart_file_http_set_proxy, false},
      {x_smart_file_http_set_CAPath, false},     {x_smart_file_http_set_CA, false},
      {x_smart_file_http_set_cookie, false},     {x_smart_file_http_set_client_authert, true},
      {x_smart_file_http_set_private_key, true}, {x_smart_file_http_set_key_type, true},
      {x_smart_file_http_set_ip_resolve, true},
  };
  for (const auto& s : setters) {
    EXPECT_EQ(s.fn(h, "x"), SMFR_NOT_HTTP);
    EXPECT_EQ(s.fn(h, nullptr), s.nullFailsFirst ? SMFR_FAILED : SMFR_NOT_HTTP);
    EXPECT_EQ(s.fn(0, nullptr), SMFR_FAILED);
  }
  EXPECT_GE(log.count("not http file or no set"), 9);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

}  // namespace
