// Reading through the C interface in tests: a handle closed at scope end, and
// whole-file checks of sequential and random reads against the pattern.
#ifndef CORVANE_TESTS_SOURCE_SMART_FILE_READING_H_
#define CORVANE_TESTS_SOURCE_SMART_FILE_READING_H_

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "corvane/smart_file.h"
#include "support/read_bytes.h"
#include "support/scripted_http_server.h"

namespace testsupport {

// An open handle, closed at the end of the test unless closed already.
class Handle {
 public:
  explicit Handle(const std::string& url) { opened = x_smart_file_open(url.c_str(), &id); }
  ~Handle() { close(); }
  int close() {
    int r = id > 0 ? x_smart_file_close(id) : SMFR_FAILED;
    id = -1;
    return r;
  }
  int id = -1;
  int opened = -1;
};

// The whole content in order, then end of content.
inline void expectSequentialRead(const std::string& url, long long size) {
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

// 25 reads at random offsets; the offsets sought, in order.
inline std::vector<long long> expectRandomSeeks(const std::string& url, long long size,
                                                unsigned seed) {
  std::vector<long long> targets;
  Handle h(url);
  EXPECT_EQ(h.opened, SMFR_OK);
  if (h.opened != SMFR_OK) return targets;
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 25; ++i) {
    long long at = static_cast<long long>(rng() % static_cast<unsigned long long>(size));
    long long want = std::min<long long>(size - at, 1 + static_cast<long long>(rng() % 90000));
    targets.push_back(at);
    long long cur = -1;
    EXPECT_EQ(x_smart_file_seek(h.id, at, &cur), SMFR_OK) << at;
    EXPECT_EQ(cur, at);
    int code = 0;
    std::string bytes = readBytes(h.id, want, 20000, &code);
    EXPECT_EQ(static_cast<long long>(bytes.size()), want) << "at " << at << " code " << code;
    EXPECT_EQ(firstPatternMismatch(bytes.data(), at, static_cast<long long>(bytes.size())), -1)
        << "at " << at;
    if (static_cast<long long>(bytes.size()) != want) break;
  }
  return targets;
}

// The start offsets of the "Range: bytes=N-" headers of the requests for
// `path`, in the order they came (-1 for a request without a range).
inline std::vector<long long> rangeStarts(const ScriptedHttpServer& server,
                                          const std::string& path) {
  std::vector<long long> starts;
  for (const RecordedRequest& r : server.requests()) {
    if (r.target != path) continue;
    std::string range = r.header("Range");
    starts.push_back(range.rfind("bytes=", 0) == 0 ? std::stoll(range.substr(6)) : -1);
  }
  return starts;
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_SOURCE_SMART_FILE_READING_H_
