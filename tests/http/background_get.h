// Runs MethodRequest::executeGet on its own thread, as the queue's feeding
// worker does, so tests can act on the transfer from the test thread.
#ifndef CORVANE_TESTS_HTTP_BACKGROUND_GET_H_
#define CORVANE_TESTS_HTTP_BACKGROUND_GET_H_

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "http/collecting_requestor.h"
#include "http/method_request.h"
#include "support/scripted_http_server.h"

namespace testsupport {

using Clock = std::chrono::steady_clock;

inline long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Runs executeGet on its own thread, as the queue's worker would.
struct BackgroundGet {
  CollectingRequestor requestor;
  webs::MethodRequest method;
  std::atomic<int> result{-1000};
  std::atomic<bool> done{false};
  std::thread thread;
  Clock::time_point started;

  BackgroundGet() { method.initialize(&requestor, ""); }
  void run(const std::string& url, long long from) {
    started = Clock::now();
    thread = std::thread([this, url, from] {
      result = method.executeGet(url, from, 0, 3);
      done = true;
    });
  }
  ~BackgroundGet() {
    if (thread.joinable()) thread.join();
  }
};

inline Script stallingAfter(long long bytes, int stallMs) {
  Script s;
  s.size = 1 << 20;
  s.stallAfter = bytes;
  s.stallMs = stallMs;
  return s;
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_HTTP_BACKGROUND_GET_H_
