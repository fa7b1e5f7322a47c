// A FileRequest of the tests' own: serves pattern content from memory on a
// thread per start, and can pretend to be a stream that cannot be read at
// random (every start delivers from offset 0, whatever was asked) or a
// source that stays silent until the test lets it speak.
//
// Install with ScriptedProducer::Install, which answers every location that
// begins with "/scripted/": "/scripted/<size>[/nonseekable][/silent]".
#ifndef CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_
#define CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "source/file_request.h"
#include "source/file_request_adaptor.h"

namespace testsupport {

inline char patternByte(long long offset) {
  return static_cast<char>((offset * 13 + offset / 4093) & 0xff);
}

class ScriptedProducer : public FileRequest {
 public:
  static constexpr unsigned long kChunk = 8192;

  explicit ScriptedProducer(const std::string& location) : FileRequest(location) {
    size_ = std::stoll(location.substr(10));
    seekable_ = location.find("/nonseekable") == std::string::npos;
    silent_ = location.find("/silent") != std::string::npos;
  }
  ~ScriptedProducer() override { release(); }

  static FileRequest* factory(const std::string& location) {
    if (location.compare(0, 10, "/scripted/") != 0) return nullptr;
    return new ScriptedProducer(location);
  }
  struct Install {
    Install() {
      {
        std::lock_guard<std::mutex> lock(gateMutex_);
        spoken_ = false;
      }
      FileRequestAdaptor::setFactoryForTesting(&ScriptedProducer::factory);
    }
    ~Install() { FileRequestAdaptor::setFactoryForTesting(nullptr); }
  };

  // Lets every silent producer deliver.
  static void speak() {
    std::lock_guard<std::mutex> lock(gateMutex_);
    spoken_ = true;
    gateCond_.notify_all();
  }

  void release() override {
    stopStreaming();
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      threads.swap(threads_);
    }
    for (std::thread& t : threads) {
      if (t.get_id() == std::this_thread::get_id()) {
        t.detach();
      } else {
        t.join();
      }
    }
  }
  int startStreaming(int version, long long from, long long count) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (out == nullptr) return -1;
    ++generation_;
    stop_ = false;
    long long begin = seekable_ ? from : 0;
    long long end = count > 0 ? begin + count : size_;
    if (end > size_) end = size_;
    util::StreamSink* sink = out;
    int gen = generation_;
    threads_.emplace_back([this, sink, version, begin, end, gen] { run(sink, version, begin, end, gen); });
    return 0;
  }
  int stopStreaming() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    std::lock_guard<std::mutex> gate(gateMutex_);
    gateCond_.notify_all();
    return 0;
  }
  bool isRandomAccess() override { return seekable_; }
  long long getContentSize() override { return size_; }
  void setBreak() override {}
  bool getStopWait() override { return false; }
  void setStopWait() override {}
  int getRequestType() override { return 0; }
  bool initialize() override { return true; }

 private:
  // The speak gate all silent producers wait on.
  static inline std::mutex gateMutex_;
  static inline std::condition_variable gateCond_;
  static inline bool spoken_ = false;

  bool stopped(int gen) {
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_ || gen != generation_;
  }
  void run(util::StreamSink* sink, int version, long long begin, long long end, int gen) {
    if (silent_) {
      std::unique_lock<std::mutex> lock(gateMutex_);
      // Bounded: a test that never lets it speak still ends.
      gateCond_.wait_for(lock, std::chrono::seconds(20), [&] { return spoken_ || stopped(gen); });
      if (!spoken_) return;
    }
    sink->notifyStreamException(util::EVENT_STREAM_NORMAL);
    std::vector<char> chunk(kChunk);
    for (long long pos = begin; pos < end; pos += kChunk) {
      if (stopped(gen)) return;
      unsigned long n = static_cast<unsigned long>(std::min<long long>(kChunk, end - pos));
      for (unsigned long i = 0; i < n; ++i) chunk[i] = patternByte(pos + static_cast<long long>(i));
      if (!sink->streamIn(chunk.data(), n, version)) return;
    }
    if (!stopped(gen)) sink->notifyStreamException(util::EVENT_STREAM_PARTIAL_END);
  }

  long long size_ = 0;
  bool seekable_ = true;
  bool silent_ = false;
  std::mutex mutex_;
  bool stop_ = false;
  int generation_ = 0;
  std::vector<std::thread> threads_;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_
