// The C interface over local files: the handle table and its refusals,
// random operation sequences checked against a model of each handle, and
// asynchronous reads with their reports.
#include <atomic>
#include <climits>
#include <map>
#include <random>
#include <thread>

#include "corvane/smart_file.h"
#include "file/dull_file.h"
#include "file/dull_file_manager.h"
#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

TEST(Handles, NumberingLimitAndTheLowestFreeSlot) {
  TempDir dir;
  std::string path = dir.writePattern("f", 1000);
  for (int i = 1; i <= 255; ++i) {
    int h = 0;
    ASSERT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_OK);
    ASSERT_EQ(h, i);
  }
  {
    LogCapture log(0);
    int h = 0;
    EXPECT_EQ(x_smart_file_open(path.c_str(), &h), SMFR_FAILED);
    EXPECT_EQ(h, -1);
    EXPECT_TRUE(log.contains("open too many file, exceed the limitation 255\n"));
  }
  EXPECT_EQ(x_smart_file_close(7), SMFR_OK);
  EXPECT_EQ(x_smart_file_close(7), SMFR_FAILED);
  // Another location, a file of its own: its buffer is rounded down to blocks.
  int again = 0;
  ASSERT_EQ(x_smart_file_open_x(dir.writePattern("g", 200000).c_str(), &again, 100000), SMFR_OK);
  EXPECT_EQ(again, 7);
  EXPECT_EQ(x_smart_file_bufferSize(again), 98304);
  for (int h = 1; h <= 255; ++h) EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
}

TEST(Handles, RefusedHandlesLocationsAndArguments) {
  char buf[100];
  unsigned long got = 0;
  long long cur = 0;
  int req = 0;
  const std::vector<std::function<long long(int)>> calls = {
      [](int h) { return x_smart_file_close(h); },
      [&](int h) { return x_smart_file_read(h, buf, 4, &got); },
      [&](int h) { return x_smart_file_read_async(h, buf, 4, nullptr, nullptr, &req); },
      [](int h) { return x_smart_file_read_abort(h, 1); },
      [&](int h) { return x_smart_file_seek(h, 0, &cur); },
      [](int h) { return x_smart_file_offset(h); },
      [](int h) { return x_smart_file_size(h); },
      [](int h) { return x_smart_file_bufferedSize(h); },
      [](int h) { return x_smart_file_set_featureflag(h, 1); },
      [](int h) { return x_smart_file_http_set_proxy(h, "p"); },
  };
  // 200 is in range but was never opened.
  for (int handle : {0, 256, -1, 200}) {
    for (size_t i = 0; i < calls.size(); ++i) {
      LogCapture log(0);
      EXPECT_EQ(calls[i](handle), SMFR_FAILED) << i << " " << handle;
      EXPECT_EQ(log.count("INVALID_HANDLE\n"), handle == 200 ? 0 : 1) << i << " " << handle;
    }
  }
  TempDir dir;
  std::string path = dir.writePattern("f", 100000);
  for (const char* url : {"file:///tmp/x", "ftp://127.0.0.1/x", "relative/path", "", "http:/x"}) {
    LogCapture log(-4);
    int h = 12345;
    EXPECT_EQ(x_smart_file_open(url, &h), SMFR_FAILED) << url;
    EXPECT_EQ(h, 12345);
    EXPECT_TRUE(log.contains("url is invalid")) << url;
  }
  int h = 0;
  EXPECT_EQ(x_smart_file_open(nullptr, &h), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_open(path.c_str(), nullptr), SMFR_FAILED);
  // A missing absolute path opens; its calls fail.
  ASSERT_EQ(x_smart_file_open(dir.file("absent").c_str(), &h), SMFR_OK);
  EXPECT_EQ(x_smart_file_read(h, buf, 16, &got), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_size(h), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_close(h), SMFR_OK);
  // Buffer sizes below two blocks take two; one no device holds fails reads.
  for (int size : {0, -100000, INT_MIN, 1, INT_MAX}) {
    Handle file(path, size == 0 ? 1 : size);
    ASSERT_EQ(file.opened, SMFR_OK);
    int code = 0;
    std::string bytes = readBytes(file.id, 1000, 1000, &code);
    EXPECT_EQ(code, size == INT_MAX ? SMFR_FAILED : SMFR_OK) << size;
    if (size != INT_MAX) EXPECT_TRUE(isPatternAt(bytes, 0, 1000)) << size;
  }
  Handle file(path);
  ASSERT_EQ(x_smart_file_seek(file.id, 500, &cur), SMFR_OK);
  EXPECT_EQ(x_smart_file_seek(file.id, LLONG_MIN, &cur), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read(file.id, buf, -1, &got), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read(file.id, nullptr, 10, &got), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read(file.id, buf, 10, nullptr), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read_async(file.id, buf, -5, nullptr, nullptr, &req), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_read_async(file.id, buf, 10, nullptr, nullptr, nullptr), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_offset(file.id), 500);
  // HTTP calls on a local file; the last setters test their text first.
  LogCapture log(0);
  EXPECT_EQ(x_smart_file_http_get_server_name(file.id), nullptr);
  EXPECT_EQ(x_smart_file_http_set_proxy(file.id, nullptr), SMFR_NOT_HTTP);
  EXPECT_EQ(x_smart_file_http_set_key_type(file.id, nullptr), SMFR_FAILED);
  EXPECT_EQ(x_smart_file_set_featureflag(file.id, 1), SMFR_OK);
  EXPECT_TRUE(log.contains("not http file"));
}

// Random opens, closes, seeks and reads of three handles on two files (two
// handles share one location), each checked against a model: position,
// bytes, result codes, and how many files are open.
TEST(ReadSeek, RandomOperationsMatchTheModel) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    TempDir dir;
    // Block edges, one byte, empty, and sizes around the ring's.
    const long long edges[] = {0, 1, 32767, 32768, 32769, (2 << 20) + 1};
    const long long sizes[2] = {seed <= 6 ? edges[seed - 1] : static_cast<long long>(rng() % 3000000),
                                seed % 2 ? edges[(seed + 2) % 6] : static_cast<long long>(1 + rng() % 40000)};
    const std::string paths[2] = {dir.writePattern("a", sizes[0]), dir.writePattern("b", sizes[1])};
    const int bufferSize = 65536 << (rng() % 6);
    struct Open {
      int file;
      int id = -1;
      long long at = 0;
    } opens[3] = {{0}, {0}, {1}};
    const int filesBefore = webs::DullFileManager::openCount();
    auto filesOpen = [&] {
      bool used[2] = {false, false};
      for (const Open& o : opens) used[o.file] |= o.id > 0;
      return used[0] + used[1];
    };
    for (int op = 0; op < 60; ++op) {
      Open& o = opens[rng() % 3];
      const long long size = sizes[o.file];
      long long cur = -1;
      int choice = static_cast<int>(rng() % 10);
      if (o.id <= 0) {
        ASSERT_EQ(x_smart_file_open_x(paths[o.file].c_str(), &o.id, bufferSize), SMFR_OK);
        o.at = 0;
        EXPECT_EQ(x_smart_file_size(o.id), size);
      } else if (choice == 0) {
        ASSERT_EQ(x_smart_file_close(o.id), SMFR_OK);
        o.id = -1;
      } else if (choice < 4) {
        long long target = choice == 1   ? static_cast<long long>(rng() % (size + 50000))
                           : choice == 2 ? std::max(0LL, o.at - static_cast<long long>(rng() % 70000))
                                         : o.at + static_cast<long long>(rng() % 70000);
        if (size == 0) {
          EXPECT_EQ(x_smart_file_seek(o.id, target, &cur), SMFR_FAILED);
          continue;
        }
        ASSERT_EQ(x_smart_file_seek(o.id, target, &cur), SMFR_OK);
        o.at = std::min(target, size);  // beyond the end is clamped to it
        EXPECT_EQ(cur, o.at);
      } else {
        long long want = rng() % 2 ? 1 + static_cast<long long>(rng() % 100)
                                   : 1 + static_cast<long long>(rng() % 400000);
        int code = 0;
        std::string bytes = readBytes(o.id, want, static_cast<int>(1 + rng() % 150000), &code);
        long long expect = std::min(want, size - o.at);
        ASSERT_TRUE(isPatternAt(bytes, o.at, expect)) << "at " << o.at << " code " << code;
        // An empty content's size reads as unknown: its end is a failed read.
        EXPECT_TRUE(code == SMFR_OK || (code == (size ? SMFR_EOF : SMFR_FAILED) && o.at + want >= size)) << code;
        o.at += expect;
      }
      if (o.id > 0) EXPECT_EQ(x_smart_file_offset(o.id), o.at);
      EXPECT_EQ(webs::DullFileManager::openCount(), filesBefore + filesOpen());
    }
    for (Open& o : opens) {
      if (o.id > 0) EXPECT_EQ(x_smart_file_close(o.id), SMFR_OK);
    }
    EXPECT_EQ(webs::DullFileManager::openCount(), filesBefore);
  }
}

struct Report {
  int reqID, status, bytes;
};

struct Reports {
  std::mutex mutex;
  std::vector<Report> all;
  std::vector<Report> get() {
    std::lock_guard<std::mutex> lock(mutex);
    return all;
  }
};

void onDone(int reqID, void* userdata, int status, int bytes) {
  Reports* r = static_cast<Reports*>(userdata);
  std::lock_guard<std::mutex> lock(r->mutex);
  r->all.push_back(Report{reqID, status, bytes});
}

TEST(AsyncRead, ReportsIdsStatusesAndBytes) {
  LogCapture log(-1);
  TempDir dir;
  Handle h(dir.writePattern("f", 100000));
  Reports reports;
  std::vector<char> buf(60000);
  const int wants[] = {60000, 60000, 100};
  const int statuses[] = {SMFR_ASYNC_DONE, SMFR_ASYNC_DONE, SMFR_ASYNC_EOF};
  const int bytes[] = {60000, 40000, 0};
  for (int i = 0; i < 3; ++i) {
    int id = 0;
    ASSERT_EQ(x_smart_file_read_async(h.id, buf.data(), wants[i], onDone, &reports, &id), SMFR_OK);
    ASSERT_TRUE(waitFor([&] { return reports.get().size() == static_cast<size_t>(i + 1); }));
    Report r = reports.get()[i];
    EXPECT_EQ(id, 1);  // the lowest free one
    EXPECT_EQ(r.reqID, id);
    EXPECT_EQ(r.status, statuses[i]);
    EXPECT_EQ(r.bytes, bytes[i]);
    EXPECT_EQ(firstPatternMismatch(buf.data(), i * 60000, r.bytes), -1);
    EXPECT_TRUE(waitFor([&] { return x_smart_file_offset(h.id) == std::min(100000, (i + 1) * 60000); }));
    // The id is freed once the callback has returned.
    ASSERT_TRUE(waitFor([] { return webs::DullFile::pendingRequestCount() == 0; }));
  }
  for (int invalid : {512, -1}) {
    EXPECT_EQ(x_smart_file_read_abort(h.id, invalid), SMFR_NOT_HTTP);
    EXPECT_TRUE(log.contains("reqID(" + std::to_string(invalid) + ") is invalid"));
  }
  EXPECT_EQ(x_smart_file_read_abort(h.id, 1), SMFR_OK);
  EXPECT_TRUE(staysFalse([&] { return reports.get().size() > 3; }, 100));
}

// On a server that keeps silent, all 511 requests wait; the 512th is
// refused, an abort reports its request twice, the close the rest once.
TEST(AsyncRead, LimitAbortAndClose) {
  Script silent;
  silent.headerDelayMs = 60000;
  ScriptedHttpServer server(silent);
  Handle h(server.url());
  Reports reports;
  static char buf[512][16];
  std::vector<int> ids;
  for (int i = 0; i < 511; ++i) {
    int id = 0;
    ASSERT_EQ(x_smart_file_read_async(h.id, buf[i], 16, onDone, &reports, &id), SMFR_OK) << i;
    ids.push_back(id);
  }
  {
    LogCapture log(0);
    int id = 0;
    EXPECT_EQ(x_smart_file_read_async(h.id, buf[511], 16, onDone, &reports, &id), SMFR_FAILED);
    EXPECT_TRUE(log.contains("send too many read request, exceed the limitation 511\n"));
  }
  EXPECT_EQ(x_smart_file_read_abort(h.id, ids.back()), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.get().size() == 2; }));
  EXPECT_EQ(h.close(), SMFR_OK);
  ASSERT_TRUE(waitFor([&] { return reports.get().size() == 512; }, 20000));
  std::map<int, int> seen;
  for (const Report& r : reports.get()) {
    EXPECT_NE(r.status, SMFR_ASYNC_DONE);
    EXPECT_EQ(r.bytes, 0);
    ++seen[r.reqID];
  }
  for (int id : ids) EXPECT_EQ(seen[id], id == ids.back() ? 2 : 1) << id;
  EXPECT_TRUE(waitFor([&] { return webs::DullFile::pendingRequestCount() == 0; }));
}

// A callback may close its own handle, the last one on its location.
struct Closing {
  int handle = -1;
  std::atomic<int> result{1};
};

void closeOwn(int, void* userdata, int, int) {
  Closing* c = static_cast<Closing*>(userdata);
  c->result = x_smart_file_close(c->handle);
}

TEST(AsyncRead, ACallbackMayCloseItsHandle) {
  TempDir dir;
  Closing c;
  ASSERT_EQ(x_smart_file_open(dir.writePattern("f", 100000).c_str(), &c.handle), SMFR_OK);
  static char buf[1000];
  int id = 0;
  ASSERT_EQ(x_smart_file_read_async(c.handle, buf, sizeof(buf), closeOwn, &c, &id), SMFR_OK);
  EXPECT_TRUE(waitFor([&] { return c.result == SMFR_OK; }));
  EXPECT_EQ(x_smart_file_offset(c.handle), SMFR_FAILED);
}

}  // namespace
}  // namespace testsupport
