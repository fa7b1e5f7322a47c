// LocalFileRequest: chunked delivery from an offset, refusals, stop and
// restart of a running reader, and its log lines.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "source/local_file_request.h"
#include "source/recording_sink.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace testsupport {
namespace {

std::string pattern(long long from, long long size) {
  std::string s(static_cast<size_t>(size), '\0');
  fillPattern(&s[0], from, size);
  return s;
}

const int kPartialEnd = util::EVENT_STREAM_PARTIAL_END;
const int kNormal = util::EVENT_STREAM_NORMAL;

// A file of `size` pattern bytes and its initialized source, sending to `sink`.
template <typename Sink>
struct SourceOf {
  explicit SourceOf(long long size) : path(dir.write("f.bin", pattern(0, size))), request(path) {
    EXPECT_TRUE(request.initialize());
    request.setOut(&sink);
  }
  bool ended(int times = 1) {
    return waitFor([&] {
      int n = 0;
      for (int e : sink.events()) n += e == kPartialEnd ? 1 : 0;
      return n >= times;
    });
  }
  TempDir dir;
  std::string path;
  Sink sink;
  LocalFileRequest request;
};
using Fixture = SourceOf<RecordingSink>;

struct ReadCase {
  const char* name;
  long long fileSize;
  long long from;
  long long count;
  std::vector<unsigned long> chunkSizes;
};

class LocalReadTable : public ::testing::TestWithParam<ReadCase> {};

TEST_P(LocalReadTable, DeliversTheChunksThenThePartialEnd) {
  const ReadCase& c = GetParam();
  LogCapture log(1);
  Fixture f(c.fileSize);
  EXPECT_EQ(f.request.getContentSize(), c.fileSize);
  EXPECT_TRUE(log.contains("xxxxx file size:" + std::to_string(c.fileSize)));
  ASSERT_EQ(f.request.startStreaming(5, c.from, c.count), 0);
  ASSERT_TRUE(f.ended());
  long long total = 0;
  for (unsigned long size : c.chunkSizes) total += static_cast<long long>(size);
  ASSERT_TRUE(log.waitFor("LocalFileRequest::perform finished, count:" + std::to_string(total)));
  EXPECT_EQ(f.sink.sizes(), c.chunkSizes);
  EXPECT_EQ(f.sink.bytes(), pattern(c.from, total));
  for (const RecordedChunk& chunk : f.sink.chunks()) EXPECT_EQ(chunk.version, 5);
  EXPECT_EQ(f.sink.events(), (std::vector<int>{kNormal, kPartialEnd}));
  EXPECT_TRUE(log.contains(std::to_string(c.from) + " ~ " + std::to_string(c.count)));
  EXPECT_TRUE(log.contains("file offset:" + std::to_string(c.from)));
  EXPECT_TRUE(log.contains("local read begin version: 5, count:" + std::to_string(c.count) + ", "));
  EXPECT_TRUE(log.contains("local start streaming end"));
  bool endsWithEmptyChunk = !c.chunkSizes.empty() && c.chunkSizes.back() == 0;
  EXPECT_EQ(log.count("xxxxxx eof"), endsWithEmptyChunk ? 1 : 0);
  // The reader stops on its own only when a count is met exactly.
  bool countMet = c.count != 0 && total == c.count;
  EXPECT_EQ(log.count("LocalFileRequest break from streaming"), countMet ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, LocalReadTable,
    ::testing::Values(
        ReadCase{"EmptyFile", 0, 0, 0, {0}},
        ReadCase{"OneExactChunk", 16384, 0, 0, {16384, 0}},
        ReadCase{"CountNotAChunkMultipleReadsToEnd", 20000, 0, 10000, {16384, 3616}},
        ReadCase{"CountOfOneChunkStopsAfterIt", 16384, 0, 16384, {16384}},
        ReadCase{"CountOfOneChunkOnALargerFile", 100000, 0, 16384, {16384}},
        ReadCase{"FromAnOffset", 40000, 7000, 0, {16384, 16384, 232}},
        ReadCase{"FromTheEnd", 40000, 40000, 0, {0}}),
    [](const ::testing::TestParamInfo<ReadCase>& p) { return std::string(p.param.name); });

// A sink offering rooms for direct reads the way the buffer queue does: one
// 32768-byte block, a room only where the free part of the block holds the
// size asked, the next room right after the last chunk, a fresh block once
// it is full. A chunk handed over in its room is taken in place; any other
// is copied to the write point. With `moveAfterInPlace` the write point
// goes back to the block's start after every chunk taken in place and the
// rest of the block is written over, as a restart between two chunks does.
class RoomSink : public RecordingSink {
 public:
  static constexpr unsigned long kBlock = 32768;

  void* directRoom(unsigned long size, int version) override {
    (void)version;
    std::lock_guard<std::mutex> lock(roomMutex_);
    lastRoom_ = nullptr;
    if (used_ == kBlock) used_ = 0;
    if (kBlock - used_ < size || size > largestRoom) return nullptr;
    lastRoom_ = block_ + used_;
    return lastRoom_;
  }
  bool streamIn(void* data, unsigned long size, int version) override {
    if (!RecordingSink::streamIn(data, size, version)) return false;
    std::lock_guard<std::mutex> lock(roomMutex_);
    if (used_ == kBlock) used_ = 0;
    if (data == lastRoom_ && size > 0) {
      ++inPlace_;
      used_ += size;
      if (moveAfterInPlace && used_ < kBlock) {
        std::memset(block_ + used_, 0xee, kBlock - used_);
        used_ = 0;
      }
    } else if (size > 0) {
      std::memcpy(block_ + used_, data, size);
      used_ += size;
    }
    lastRoom_ = nullptr;
    return true;
  }
  int inPlace() const {
    std::lock_guard<std::mutex> lock(roomMutex_);
    return inPlace_;
  }

  unsigned long largestRoom = kBlock;
  bool moveAfterInPlace = false;

 private:
  mutable std::mutex roomMutex_;
  char block_[kBlock] = {};
  unsigned long used_ = 0;
  char* lastRoom_ = nullptr;
  int inPlace_ = 0;
};

struct RoomCase {
  const char* name;
  unsigned long largestRoom;
  bool moveAfterInPlace;
  long long fileSize;
  long long from;
  std::vector<unsigned long> chunkSizes;
  int inPlace;  // chunks the sink took where they were read
};

class LocalRoomTable : public ::testing::TestWithParam<RoomCase> {};

// Whatever rooms the sink offers, the chunks and their bytes are those of a
// reader without rooms.
TEST_P(LocalRoomTable, ChunksAndBytesDoNotDependOnTheRooms) {
  const RoomCase& c = GetParam();
  LogCapture log(1);
  SourceOf<RoomSink> f(c.fileSize);
  f.sink.largestRoom = c.largestRoom;
  f.sink.moveAfterInPlace = c.moveAfterInPlace;
  ASSERT_EQ(f.request.startStreaming(2, c.from, 0), 0);
  ASSERT_TRUE(f.ended());
  ASSERT_TRUE(log.waitFor("LocalFileRequest::perform finished, count:" +
                          std::to_string(c.fileSize - c.from)));
  EXPECT_EQ(f.sink.sizes(), c.chunkSizes);
  EXPECT_EQ(f.sink.bytes(), pattern(c.from, c.fileSize - c.from));
  EXPECT_EQ(f.sink.inPlace(), c.inPlace);
  bool endsWithEmptyChunk = !c.chunkSizes.empty() && c.chunkSizes.back() == 0;
  EXPECT_EQ(log.count("xxxxxx eof"), endsWithEmptyChunk ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Rooms, LocalRoomTable,
    ::testing::Values(
        RoomCase{"TwoChunkRooms", 32768, false, 100000, 0,
                 {16384, 16384, 16384, 16384, 16384, 16384, 1696}, 7},
        RoomCase{"TwoChunkRoomsExactEnd", 32768, false, 65536, 0,
                 {16384, 16384, 16384, 16384, 0}, 4},
        RoomCase{"TwoChunkRoomsOddChunkCount", 32768, false, 49152, 0, {16384, 16384, 16384, 0}, 3},
        RoomCase{"OneChunkRooms", 16384, false, 40000, 0, {16384, 16384, 7232}, 3},
        RoomCase{"FromAnOffset", 32768, false, 60000, 7000, {16384, 16384, 16384, 3848}, 4},
        // Every second chunk is read again from the file: its room was
        // written over.
        RoomCase{"RoomMovedAfterTheFirstChunk", 32768, true, 100000, 0,
                 {16384, 16384, 16384, 16384, 16384, 16384, 1696}, 5}),
    [](const ::testing::TestParamInfo<RoomCase>& p) { return std::string(p.param.name); });

TEST(LocalFileRequest, StartWithoutASinkIsRefused) {
  LogCapture log(1);
  Fixture f(100);
  LocalFileRequest request(f.path);
  ASSERT_TRUE(request.initialize());
  EXPECT_EQ(request.startStreaming(1, 0, 0), -1);
  EXPECT_TRUE(log.contains("start streaming at local cause of out is null"));
  request.setOut(&f.sink);
  request.resetOut();
  EXPECT_EQ(request.startStreaming(1, 0, 0), -1);
  EXPECT_EQ(log.count("start streaming at local cause of out is null"), 2);
}

TEST(LocalFileRequest, InitializeFailsForAMissingFile) {
  TempDir dir;
  LocalFileRequest request(dir.file("absent"));
  EXPECT_FALSE(request.initialize());
  EXPECT_EQ(request.getContentSize(), 0);
  EXPECT_TRUE(request.isRandomAccess());
  EXPECT_EQ(request.getRequestType(), 0);
  EXPECT_FALSE(request.getStopWait());
}

// A sink that lets chunks through one permit at a time, so that a call can
// be placed between two chunks of a running reader.
class ThrottledSink : public RecordingSink {
 public:
  bool streamIn(void* data, unsigned long size, int version) override {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ++entered_;
      cond_.wait_for(lock, std::chrono::seconds(5), [&] { return permits_ > 0; });
      if (permits_ > 0) --permits_;
    }
    return RecordingSink::streamIn(data, size, version);
  }
  void grant(int permits = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    permits_ += permits;
    cond_.notify_all();
  }
  int entered() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entered_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int permits_ = 0;
  int entered_ = 0;
};

// A reader of 512 chunks started with `version` and held at its first chunk.
struct ThrottledRun : SourceOf<ThrottledSink> {
  static constexpr long long kSize = 512 * 16384;
  explicit ThrottledRun(int version) : SourceOf<ThrottledSink>(kSize) {
    EXPECT_EQ(request.startStreaming(version, 0, 0), 0);
    EXPECT_TRUE(waitFor([&] { return sink.entered() == 1; }));
  }
  // Runs `action` on its own thread, letting one chunk through at a time
  // until it returns (it gets the reader's lock between two chunks).
  void whileGranting(const std::function<void()>& action) {
    std::atomic<bool> done{false};
    std::thread t([&] {
      action();
      done = true;
    });
    while (!done) {
      int before = sink.entered();
      sink.grant();
      waitFor([&] { return done || sink.entered() > before; }, 2000);
    }
    t.join();
  }
};

TEST(LocalFileRequest, SecondStartWhileReadingIsRefused) {
  LogCapture log(1);
  ThrottledRun run(3);
  int second = 99;
  run.whileGranting([&] { second = run.request.startStreaming(4, 100, 0); });
  EXPECT_EQ(second, -1);
  EXPECT_TRUE(log.contains("1"));
  EXPECT_TRUE(log.contains("100 ~ 0"));
  run.sink.grant(1 << 30);
  ASSERT_TRUE(waitFor([&] { return run.sink.events().size() == 2; }));
  // The first run was undisturbed: all bytes from 0 with version 3.
  EXPECT_EQ(run.sink.bytes(), pattern(0, ThrottledRun::kSize));
  for (const RecordedChunk& chunk : run.sink.chunks()) EXPECT_EQ(chunk.version, 3);
  EXPECT_EQ(run.sink.events(), (std::vector<int>{kNormal, kPartialEnd}));
  EXPECT_EQ(log.count("file offset:100"), 0);
}

TEST(LocalFileRequest, StopEndsARunningReaderWithoutAnEndEvent) {
  LogCapture log(1);
  ThrottledRun run(1);
  run.whileGranting([&] { EXPECT_EQ(run.request.stopStreaming(), 0); });
  size_t atStop = run.sink.chunks().size();
  run.sink.grant(1 << 30);
  ASSERT_TRUE(log.waitFor("LocalFileRequest break from streaming"));
  ASSERT_TRUE(log.waitFor("LocalFileRequest::perform finished, count:" +
                          std::to_string(16384 * atStop)));
  EXPECT_LT(atStop * 16384, static_cast<size_t>(ThrottledRun::kSize));
  EXPECT_EQ(run.sink.chunks().size(), atStop);
  EXPECT_EQ(run.sink.events(), (std::vector<int>{kNormal}));
  EXPECT_EQ(run.sink.bytes(), pattern(0, static_cast<long long>(atStop) * 16384));
  EXPECT_TRUE(log.contains("begin to stop LocalFile streaming"));
  EXPECT_TRUE(log.contains(" stop LocalFile streaming OK"));
  EXPECT_TRUE(log.contains("file relsease end"));

  // A start right after the stop reopens the file at the new offset.
  const long long from = ThrottledRun::kSize - 20000;
  ASSERT_EQ(run.request.startStreaming(2, from, 0), 0);
  EXPECT_TRUE(log.contains("file offset:" + std::to_string(from)));
  ASSERT_TRUE(waitFor([&] { return run.sink.events().size() == 3; }));
  std::vector<RecordedChunk> chunks = run.sink.chunks();
  std::string after;
  for (size_t i = atStop; i < chunks.size(); ++i) {
    EXPECT_EQ(chunks[i].version, 2);
    after += chunks[i].bytes;
  }
  EXPECT_EQ(after, pattern(from, 20000));
  EXPECT_EQ(run.sink.events(), (std::vector<int>{kNormal, kNormal, kPartialEnd}));
}

TEST(LocalFileRequest, StopAfterAnEndedRunThenStartReopensWithTheNewVersion) {
  Fixture f(100000);
  ASSERT_EQ(f.request.startStreaming(1, 0, 16384), 0);
  ASSERT_TRUE(f.ended());
  EXPECT_EQ(f.request.stopStreaming(), 0);
  ASSERT_EQ(f.request.startStreaming(7, 90000, 0), 0);
  ASSERT_TRUE(f.ended(2));
  std::vector<RecordedChunk> chunks = f.sink.chunks();
  ASSERT_EQ(chunks.size(), 2u);
  EXPECT_EQ(chunks[0].version, 1);
  EXPECT_EQ(chunks[1].version, 7);
  EXPECT_EQ(chunks[1].bytes, pattern(90000, 10000));
}

TEST(LocalFileRequest, RefusedChunkEndsTheRunSilently) {
  LogCapture log(1);
  Fixture f(100000);
  f.sink.refuseAfter(2);
  ASSERT_EQ(f.request.startStreaming(1, 0, 0), 0);
  ASSERT_TRUE(log.waitFor("LocalFileRequest::perform finished, count:32768"));
  EXPECT_TRUE(log.contains("write to buffer failed"));
  EXPECT_EQ(f.sink.refused(), 1);
  EXPECT_EQ(f.sink.sizes(), (std::vector<unsigned long>{16384, 16384}));
  EXPECT_EQ(f.sink.events(), (std::vector<int>{kNormal}));
}

TEST(LocalFileRequest, FileThatCannotBeReopenedAfterStopDeliversNothing) {
  LogCapture log(0);
  Fixture f(100000);
  ASSERT_EQ(f.request.startStreaming(1, 0, 16384), 0);
  ASSERT_TRUE(f.ended());
  ASSERT_TRUE(waitFor([&] { return f.request.stopStreaming() == 0; }));
  ASSERT_EQ(std::remove(f.path.c_str()), 0);
  f.sink.clear();
  EXPECT_EQ(f.request.startStreaming(2, 0, 0), 0);
  EXPECT_TRUE(log.contains("Open file fail"));
  EXPECT_TRUE(staysFalse([&] { return f.sink.chunks().size() + f.sink.events().size() > 0; }, 200));
}

TEST(LocalFileRequest, LogThresholds) {
  struct Line {
    const char* text;
    int threshold;
  };
  for (const Line& line : {Line{"xxxxxx eof", 0}, Line{"local start streaming end", 1},
                           Line{"file offset:0", 0}, Line{"FileRequest construction", 1}}) {
    std::string failure = checkThreshold(line.text, line.threshold, [&] {
      Fixture f(0);
      ASSERT_EQ(f.request.startStreaming(1, 0, 0), 0);
      ASSERT_TRUE(waitFor([&] { return f.sink.events().size() == 2; }));
    });
    EXPECT_EQ(failure, "") << line.text;
  }
}

}  // namespace
}  // namespace testsupport
