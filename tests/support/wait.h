// Waiting for a condition with a deadline: the only way tests synchronise
// with library threads (never a bare sleep).
#ifndef CORVANE_TESTS_SUPPORT_WAIT_H_
#define CORVANE_TESTS_SUPPORT_WAIT_H_

#include <chrono>
#include <functional>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testsupport {

// Polls `condition` until it holds or `timeoutMs` passed; its last answer.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = 5000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Checks that `condition` stays false for `ms`: for "this must not happen"
// assertions, where only a bounded observation is possible.
inline bool staysFalse(const std::function<bool()>& condition, int ms) {
  return !waitFor(condition, ms);
}

// A gate test callbacks block on until the test opens it (with a deadline so
// a test that forgets to open it cannot hang the run).
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }
  bool pass(int timeoutMs = 10000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_WAIT_H_
