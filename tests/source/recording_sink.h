// A StreamSink for driving producers in tests: records every chunk (bytes
// and version) and every event, and can refuse chunks from a given one on.
#ifndef CORVANE_TESTS_SOURCE_RECORDING_SINK_H_
#define CORVANE_TESTS_SOURCE_RECORDING_SINK_H_

#include <mutex>
#include <string>
#include <vector>

#include "buffer/stream_sink.h"

struct RecordedChunk {
  std::string bytes;
  int version;
};

class RecordingSink : public util::StreamSink {
 public:
  bool streamIn(void* data, unsigned long size, int version) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuseFrom_ >= 0 && static_cast<int>(chunks_.size()) >= refuseFrom_) {
      ++refused_;
      return false;
    }
    chunks_.push_back(RecordedChunk{std::string(static_cast<char*>(data), size), version});
    return true;
  }
  void notifyStreamException(int event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }

  // Chunks after the first `accepted` ones are refused.
  void refuseAfter(int accepted) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseFrom_ = accepted;
  }
  std::vector<RecordedChunk> chunks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return chunks_;
  }
  std::vector<int> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  int refused() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refused_;
  }
  std::vector<unsigned long> sizes() const {
    std::vector<unsigned long> out;
    for (const RecordedChunk& c : chunks()) out.push_back(c.bytes.size());
    return out;
  }
  std::string bytes() const {
    std::string all;
    for (const RecordedChunk& c : chunks()) all += c.bytes;
    return all;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    chunks_.clear();
    events_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<RecordedChunk> chunks_;
  std::vector<int> events_;
  int refuseFrom_ = -1;
  int refused_ = 0;
};

#endif  // CORVANE_TESTS_SOURCE_RECORDING_SINK_H_
