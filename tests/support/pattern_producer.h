// testsupport::PatternProducer: a threaded test source behind the queue's
// producer interface, delivering content computable at any offset in
// 16384-byte chunks from a thread of its own, as a local file source does.
//
// It records every startStreaming call (count and offsets) so tests can
// prove how many connections a read pattern cost, and it can be told to
// refuse starts or to go silent, for the queue's failure paths.
#ifndef CORVANE_TESTS_SUPPORT_PATTERN_PRODUCER_H_
#define CORVANE_TESTS_SUPPORT_PATTERN_PRODUCER_H_

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "buffer/buffer_queue_producer.h"

namespace testsupport {

// The byte of the test content at `offset`.
inline unsigned char patternByte(long long offset) {
  unsigned long long x = static_cast<unsigned long long>(offset);
  return static_cast<unsigned char>((x * 131u) ^ (x >> 9) ^ (x >> 17));
}

class PatternProducer : public util::BufferQueueProducer {
 public:
  static constexpr int kChunk = 16384;

  explicit PatternProducer(long long size, bool seekable = true);
  ~PatternProducer() override;

  void setOut(util::StreamSink* out) override;
  void release() override { stopStreaming(); }
  int startStreaming(int version, long long from, long long count) override;
  int stopStreaming() override;
  bool isRandomAccess() override { return seekable_; }
  long long getContentSize() override { return size_; }
  void setBreak() override {}
  bool getStopWait() override { return false; }
  void setStopWait() override {}
  int getRequestType() override { return 0; }
  bool initialize() override { return true; }
  void resetOut() override;

  int starts() const { return starts_.load(); }
  std::vector<long long> startOffsets() const;
  long long bytesDelivered() const { return delivered_.load(); }
  // From the n-th start on (counting from 1), starts are refused (-1).
  void refuseStartsFrom(int n) { refuseFrom_ = n; }
  // From the n-th start on, starts answer 0 and deliver nothing at all.
  void silentStartsFrom(int n) { silentFrom_ = n; }

 private:
  void run(int version, long long from);
  void joinThread();

  const long long size_;
  const bool seekable_;
  std::atomic<util::StreamSink*> out_{nullptr};
  std::mutex mutex_;  // the thread handle and the offsets list
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> running_{false};
  std::atomic<int> starts_{0};
  std::vector<long long> offsets_;
  std::atomic<long long> delivered_{0};
  std::atomic<int> refuseFrom_{0};
  std::atomic<int> silentFrom_{0};
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_PATTERN_PRODUCER_H_
