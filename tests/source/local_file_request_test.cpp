// LocalFileRequest: chunks from an offset, then the end. Rooms, restarts
// and stops are exercised through the queue by every local read, seek and
// close of the suite.
#include <mutex>

#include "source/local_file_request.h"
#include "support/support.h"

namespace testsupport {
namespace {

// Records chunks and events; offers no room, so every chunk is copied
// (the queue's rooms are used in place by every local read of the suite).
class Sink : public util::StreamSink {
 public:
  void* directRoom(unsigned long, int) override { return nullptr; }
  bool streamIn(void* data, unsigned long size, int version) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sizes.push_back(size);
    versions.push_back(version);
    bytes.append(static_cast<char*>(data), size);
    return true;
  }
  void notifyStreamException(int event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events.push_back(event);
  }
  std::mutex mutex_;
  std::vector<unsigned long> sizes;
  std::vector<int> versions, events;
  std::string bytes;
};

TEST(LocalFileRequest, DeliversTheChunksFromTheOffsetThenTheEnd) {
  const struct {
    long long size, from, count;
    std::vector<unsigned long> chunks;
  } cases[] = {
      {0, 0, 0, {0}},
      {16384, 0, 0, {16384, 0}},
      {20000, 0, 10000, {16384, 3616}},  // a count not of whole chunks reads on
      {100000, 0, 16384, {16384}},       // a count met exactly stops there
      {40000, 7000, 0, {16384, 16384, 232}},
      {40000, 40000, 0, {0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + " from " + std::to_string(c.from));
    LogCapture log(1);
    TempDir dir;
    LocalFileRequest request(dir.writePattern("f", c.size));
    Sink sink;
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
  }
}

}  // namespace
}  // namespace testsupport
