#include "support/pattern_producer.h"

namespace testsupport {

PatternProducer::PatternProducer(long long size, bool seekable) : size_(size), seekable_(seekable) {}

PatternProducer::~PatternProducer() { stopStreaming(); }

void PatternProducer::setOut(util::StreamSink* out) { out_ = out; }

void PatternProducer::resetOut() { out_ = nullptr; }

void PatternProducer::joinThread() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (thread_.joinable()) thread_.join();
}

int PatternProducer::startStreaming(int version, long long from, long long count) {
  int n = ++starts_;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    offsets_.push_back(from);
  }
  if (out_ == nullptr || running_) return -1;
  if (refuseFrom_ != 0 && n >= refuseFrom_) return -1;
  if (silentFrom_ != 0 && n >= silentFrom_) return 0;
  joinThread();
  out_.load()->notifyStreamException(util::EVENT_STREAM_NORMAL);
  stop_ = false;
  running_ = true;
  std::lock_guard<std::mutex> lock(mutex_);
  // A source that cannot seek starts over at 0 and skips to `from` itself
  // (as the HTTP source does); the queue sees the same bytes either way.
  thread_ = std::thread(&PatternProducer::run, this, version, from);
  return 0;
}

int PatternProducer::stopStreaming() {
  stop_ = true;
  joinThread();
  return 0;
}

std::vector<long long> PatternProducer::startOffsets() const {
  std::lock_guard<std::mutex> lock(const_cast<std::mutex&>(mutex_));
  return offsets_;
}

void PatternProducer::run(int version, long long from) {
  // One chunk buffer for the whole connection, as the local source does.
  std::vector<unsigned char> chunk(kChunk);
  long long pos = from;
  bool refused = false;
  while (!stop_ && pos < size_) {
    long long n = size_ - pos < kChunk ? size_ - pos : kChunk;
    for (long long i = 0; i < n; ++i) chunk[static_cast<size_t>(i)] = patternByte(pos + i);
    if (!out_.load()->streamIn(chunk.data(), static_cast<unsigned long>(n), version)) {
      refused = true;
      break;
    }
    pos += n;
    delivered_ += n;
  }
  if (!stop_ && !refused) {
    // The end of the file: an empty chunk, then the end event.
    if (out_.load()->streamIn(chunk.data(), 0, version)) {
      out_.load()->notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
    }
  }
  running_ = false;
}

}  // namespace testsupport
