// A FileRequest of the tests' own over the shared PatternProducer, answering
// every location "/scripted/<size>[/nonseekable][/silent]" while installed
// (ScriptedProducer::Install). A stream that cannot be read at random
// delivers from offset 0 whatever was asked; a silent one starts delivering
// only once the test calls speak().
#ifndef CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_
#define CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "source/file_request.h"
#include "source/file_request_adaptor.h"
#include "support/pattern_producer.h"

namespace testsupport {

class ScriptedProducer : public FileRequest {
 public:
  explicit ScriptedProducer(const std::string& location)
      : FileRequest(location),
        inner_(std::stoll(location.substr(10)), location.find("/nonseekable") == std::string::npos),
        silent_(location.find("/silent") != std::string::npos) {}
  ~ScriptedProducer() override { release(); }

  static FileRequest* factory(const std::string& location) {
    return location.compare(0, 10, "/scripted/") == 0 ? new ScriptedProducer(location) : nullptr;
  }
  struct Install {
    Install() {
      setSpoken(false);
      FileRequestAdaptor::setFactoryForTesting(&ScriptedProducer::factory);
    }
    ~Install() { FileRequestAdaptor::setFactoryForTesting(nullptr); }
  };
  // Lets every silent producer deliver.
  static void speak() { setSpoken(true); }

  void setOut(util::StreamSink* sink) override {
    FileRequest::setOut(sink);
    inner_.setOut(sink);
  }
  void resetOut() override {
    FileRequest::resetOut();
    inner_.resetOut();
  }
  void release() override { stopStreaming(); }
  // A silent start answers at once and waits for speak() on a thread of its
  // own (bounded, so a test that never lets it speak still ends).
  int startStreaming(int version, long long from, long long count) override {
    if (!silent_) return inner_.startStreaming(version, from, count);
    stopWaiter();  // a new connection replaces one still waiting
    std::lock_guard<std::mutex> lock(gateMutex_);
    stop_ = false;
    waiter_ = std::thread([this, version, from, count] {
      std::unique_lock<std::mutex> gate(gateMutex_);
      gateCond_.wait_for(gate, std::chrono::seconds(20), [&] { return spoken_ || stop_; });
      bool go = spoken_ && !stop_;
      gate.unlock();
      if (go) inner_.startStreaming(version, from, count);
    });
    return 0;
  }
  int stopStreaming() override {
    stopWaiter();
    return inner_.stopStreaming();
  }
  bool isRandomAccess() override { return inner_.isRandomAccess(); }
  long long getContentSize() override { return inner_.getContentSize(); }
  void setBreak() override {}
  bool getStopWait() override { return false; }
  void setStopWait() override {}
  int getRequestType() override { return 0; }
  bool initialize() override { return true; }

 private:
  static void setSpoken(bool spoken) {
    std::lock_guard<std::mutex> lock(gateMutex_);
    spoken_ = spoken;
    gateCond_.notify_all();
  }
  void stopWaiter() {
    std::thread waiter;
    {
      std::lock_guard<std::mutex> lock(gateMutex_);
      stop_ = true;
      gateCond_.notify_all();
      waiter.swap(waiter_);
    }
    if (waiter.joinable()) waiter.join();
  }

  // The speak gate all silent producers wait on; it also guards stop_ and waiter_.
  static inline std::mutex gateMutex_;
  static inline std::condition_variable gateCond_;
  static inline bool spoken_ = false;
  PatternProducer inner_;
  const bool silent_;
  bool stop_ = false;
  std::thread waiter_;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_FILE_SCRIPTED_PRODUCER_H_
