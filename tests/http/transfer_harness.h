// Driving webs::MethodRequest in tests: a requestor that keeps every body
// byte (and can refuse chunks), a transfer run on the test thread, and one
// run on its own thread as the queue's feeding worker runs it.
#ifndef CORVANE_TESTS_HTTP_TRANSFER_HARNESS_H_
#define CORVANE_TESTS_HTTP_TRANSFER_HARNESS_H_

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http/method_request.h"
#include "http/requestor.h"
#include "support/pattern_check.h"
#include "support/scripted_http_server.h"

namespace testsupport {

using Clock = std::chrono::steady_clock;

inline long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class CollectingRequestor : public webs::Requestor {
 public:
  int receive(void* data, int size, void*, int version) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      bytes_.append(static_cast<const char*>(data), static_cast<size_t>(size));
      versions_.push_back(version);
    }
    received_ += size;
    chunks_++;
    return refuse ? 0 : size;
  }
  void readyReceive() override {}
  void finishReceive() override {}

  std::string bytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
  }
  std::vector<int> versions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return versions_;
  }
  long long received() const { return received_.load(); }
  int chunks() const { return chunks_.load(); }
  std::atomic<bool> refuse{false};

 private:
  mutable std::mutex mutex_;
  std::string bytes_;
  std::vector<int> versions_;
  std::atomic<long long> received_{0};
  std::atomic<int> chunks_{0};
};

struct Transfer {
  CollectingRequestor requestor;
  webs::MethodRequest method;
  Transfer() { method.initialize(&requestor, ""); }
  int get(const std::string& url, long long from = 0, long long to = 0) {
    return method.executeGet(url, from, to, 1);
  }
};

// Runs executeGet on its own thread; the destructor joins it.
struct BackgroundGet : Transfer {
  std::atomic<int> result{-1000};
  std::atomic<bool> done{false};
  std::thread thread;
  Clock::time_point started;

  void run(const std::string& url) {
    started = Clock::now();
    thread = std::thread([this, url] {
      result = method.executeGet(url, 0, 0, 3);
      done = true;
    });
  }
  ~BackgroundGet() {
    if (thread.joinable()) thread.join();
  }
};

inline Script sized(long long size) {
  Script s;
  s.size = size;
  return s;
}

inline Script stallingAfter(long long bytes, int stallMs, long long size = 1 << 20) {
  Script s = sized(size);
  s.stallAfter = bytes;
  s.stallMs = stallMs;
  return s;
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_HTTP_TRANSFER_HARNESS_H_
