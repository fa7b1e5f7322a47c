// LocalFileRequest: chunks from an offset, straight into the sink's room
// when it offers one, the end, refusals and stops.
#include <atomic>
#include <cstring>
#include <thread>

#include "source/local_file_request.h"
#include "support/support.h"

namespace testsupport {
namespace {

// Records chunks and events. Offers rooms the way the queue does when
// `rooms` is set: one 32768-byte block, the next room right after the last
// chunk; a chunk handed back in its room is taken in place.
class Sink : public util::StreamSink {
 public:
  void* directRoom(unsigned long size, int) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (used_ == sizeof(block_)) used_ = 0;
    room_ = rooms && sizeof(block_) - used_ >= size ? block_ + used_ : nullptr;
    return room_;
  }
  bool streamIn(void* data, unsigned long size, int version) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuseFrom >= 0 && static_cast<int>(sizes.size()) >= refuseFrom) return false;
    sizes.push_back(size);
    versions.push_back(version);
    bytes.append(static_cast<char*>(data), size);
    if (data == room_ && size > 0) {
      ++inPlace;
      used_ += size;
    }
    room_ = nullptr;
    if (slow) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
  }
  void notifyStreamException(int event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events.push_back(event);
  }
  int count(int event) {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(events.begin(), events.end(), event));
  }

  std::mutex mutex_;
  std::vector<unsigned long> sizes;
  std::vector<int> versions, events;
  std::string bytes;
  int inPlace = 0, refuseFrom = -1;
  bool rooms = false, slow = false;

 private:
  char block_[32768];
  unsigned long used_ = 0;
  char* room_ = nullptr;
};

TEST(LocalFileRequest, DeliversTheChunksFromTheOffsetThenTheEnd) {
  const struct {
    long long size, from, count;
    bool rooms;
    std::vector<unsigned long> chunks;
    int inPlace;
  } cases[] = {
      {0, 0, 0, false, {0}, 0},
      {16384, 0, 0, false, {16384, 0}, 0},
      {20000, 0, 10000, false, {16384, 3616}, 0},  // a count not of whole chunks reads on
      {100000, 0, 16384, false, {16384}, 0},       // a count met exactly stops there
      {40000, 7000, 0, false, {16384, 16384, 232}, 0},
      {40000, 40000, 0, false, {0}, 0},
      {100000, 0, 0, true, {16384, 16384, 16384, 16384, 16384, 16384, 1696}, 7},
      {65536, 0, 0, true, {16384, 16384, 16384, 16384, 0}, 4},
      {60000, 7000, 0, true, {16384, 16384, 16384, 3848}, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + " from " + std::to_string(c.from));
    LogCapture log(1);
    TempDir dir;
    LocalFileRequest request(dir.writePattern("f", c.size));
    Sink sink;
    sink.rooms = c.rooms;
    ASSERT_TRUE(request.initialize());
    request.setOut(&sink);
    EXPECT_EQ(request.getContentSize(), c.size);
    ASSERT_EQ(request.startStreaming(5, c.from, c.count), 0);
    long long total = 0;
    for (unsigned long n : c.chunks) total += static_cast<long long>(n);
    ASSERT_TRUE(log.waitFor("LocalFileRequest::perform finished, count:" + std::to_string(total)));
    std::lock_guard<std::mutex> lock(sink.mutex_);
    EXPECT_EQ(sink.sizes, c.chunks);
    EXPECT_TRUE(isPatternAt(sink.bytes, c.from, total));
    EXPECT_EQ(sink.versions, std::vector<int>(c.chunks.size(), 5));
    EXPECT_EQ(sink.events, (std::vector<int>{util::EVENT_STREAM_NORMAL, util::EVENT_STREAM_PARTIAL_END}));
    EXPECT_EQ(sink.inPlace, c.inPlace);
  }
}

TEST(LocalFileRequest, RefusalsStopsAndRestarts) {
  TempDir dir;
  const long long size = 512 * 16384;
  std::string path = dir.writePattern("f", size);
  LogCapture log(1);
  {
    LocalFileRequest missing(dir.file("absent"));
    EXPECT_FALSE(missing.initialize());
    EXPECT_EQ(missing.getContentSize(), 0);
  }
  LocalFileRequest request(path);
  ASSERT_TRUE(request.initialize());
  EXPECT_EQ(request.startStreaming(1, 0, 0), -1);
  EXPECT_TRUE(log.contains("start streaming at local cause of out is null"));
  Sink sink;
  sink.slow = true;
  request.setOut(&sink);
  ASSERT_EQ(request.startStreaming(1, 0, 0), 0);
  ASSERT_TRUE(log.waitFor("local read begin version: 1, count:0, "));
  EXPECT_EQ(request.startStreaming(2, 0, 0), -1);  // one run at a time
  EXPECT_EQ(request.stopStreaming(), 0);
  EXPECT_EQ(sink.count(util::EVENT_STREAM_PARTIAL_END), 0);  // a stop is not an end
  {
    std::lock_guard<std::mutex> lock(sink.mutex_);
    EXPECT_LT(sink.bytes.size(), static_cast<size_t>(size));
    EXPECT_TRUE(isPatternAt(sink.bytes, 0, static_cast<long long>(sink.bytes.size())));
    sink.bytes.clear();
    sink.versions.clear();
    sink.slow = false;
    sink.refuseFrom = static_cast<int>(sink.sizes.size()) + 3;
  }
  // Restarted with another version; a refused chunk ends the run silently.
  ASSERT_EQ(request.startStreaming(3, 5000, 0), 0);
  ASSERT_TRUE(waitFor([&] { return log.countContaining("LocalFileRequest::perform finished") == 2; }));
  std::lock_guard<std::mutex> lock(sink.mutex_);
  EXPECT_TRUE(isPatternAt(sink.bytes, 5000, 3 * 16384));
  EXPECT_EQ(sink.versions, std::vector<int>(3, 3));
  EXPECT_EQ(std::count(sink.events.begin(), sink.events.end(), util::EVENT_STREAM_PARTIAL_END), 0);
}

}  // namespace
}  // namespace testsupport
