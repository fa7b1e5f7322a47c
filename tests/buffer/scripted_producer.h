// A scripted producer for driving the queue's sink by hand: it records what
// the queue asks of it and delivers nothing by itself. Also the fixture of a
// queue fed by it, and the checks of bytes read against the pattern.
#ifndef CORVANE_TESTS_BUFFER_SCRIPTED_PRODUCER_H_
#define CORVANE_TESTS_BUFFER_SCRIPTED_PRODUCER_H_

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "buffer/buffer_queue.h"
#include "buffer/buffer_queue_producer.h"
#include "support/pattern_producer.h"
#include "support/wait.h"

namespace testsupport {

class ScriptedProducer : public util::BufferQueueProducer {
 public:
  struct Start {
    int version;
    long long from;
    long long count;
  };

  ScriptedProducer(long long size, bool seekable) : size_(size), seekable_(seekable) {}

  void setOut(util::StreamSink* out) override { out_ = out; }
  void release() override { ++releases; }
  int startStreaming(int version, long long from, long long count) override {
    std::lock_guard<std::mutex> lock(mutex_);
    starts_.push_back({version, from, count});
    return startResult;
  }
  int stopStreaming() override {
    ++stops;
    if (Gate* gate = stopGate.load()) gate->pass();
    return 0;
  }
  bool isRandomAccess() override { return seekable_; }
  long long getContentSize() override { return size_; }
  void setBreak() override { ++breaks; }
  bool getStopWait() override { return false; }
  void setStopWait() override { ++stopWaits; }
  int getRequestType() override { return 0; }
  bool initialize() override { return true; }
  void resetOut() override { out_ = nullptr; }

  std::vector<Start> starts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_;
  }
  size_t startCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_.size();
  }

  // Delivers the pattern bytes [from, from + n) as one chunk.
  bool deliver(long long from, long long n, int version) {
    std::vector<unsigned char> data(static_cast<size_t>(n));
    for (long long i = 0; i < n; ++i) data[static_cast<size_t>(i)] = patternByte(from + i);
    return out_->streamIn(data.data(), static_cast<unsigned long>(n), version);
  }

  std::atomic<Gate*> stopGate{nullptr};  // stopStreaming waits here when set
  std::atomic<int> startResult{0};
  std::atomic<int> stops{0};
  std::atomic<int> breaks{0};
  std::atomic<int> releases{0};
  std::atomic<int> stopWaits{0};

 private:
  long long size_;
  bool seekable_;
  util::StreamSink* out_ = nullptr;
  std::mutex mutex_;
  std::vector<Start> starts_;
};

// Every byte of `buffer` is the stream's byte, from `from` on.
inline void expectPattern(const char* buffer, long long from, unsigned long n) {
  for (unsigned long i = 0; i < n; ++i) {
    const long long at = from + static_cast<long long>(i);
    ASSERT_EQ(patternByte(at), static_cast<unsigned char>(buffer[i])) << "at " << at;
  }
}

// Seeks to `offset`, reads `size` bytes and checks them; the bytes read.
inline unsigned long readChecked(util::BufferQueue& queue, long long offset, unsigned long size) {
  long long at = 0;
  EXPECT_TRUE(queue.seek(offset, &at));
  std::vector<char> buffer(size);
  unsigned long got = 0;
  EXPECT_EQ(0, queue.read(buffer.data(), size, &got));
  expectPattern(buffer.data(), offset, got);
  return got;
}

// A queue fed by a scripted producer; the test plays the producer.
struct ScriptedQueue {
  explicit ScriptedQueue(int bufferSize = 4 * 32768, long long size = 1 << 20,
                         bool seekable = true)
      : producer(size, seekable), queue(bufferSize) {
    queue.initialize(&producer);
    producer.setOut(&queue);
  }
  ~ScriptedQueue() { queue.release(); }

  // Reads n bytes at the queue's position from a thread of its own, into
  // `result` and `got`, while the caller plays the producer.
  std::thread readInBackground(char* into, unsigned long n) {
    return std::thread([this, into, n] { result = queue.read(into, n, &got); });
  }

  ScriptedProducer producer;
  util::BufferQueue queue;
  unsigned long got = 0;
  int result = 1;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_BUFFER_SCRIPTED_PRODUCER_H_
