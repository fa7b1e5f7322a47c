// util::RudeTimer: a coarse countdown timer that runs a callback on its own
// worker thread after a period, once or repeatedly.
//
// The countdown advances in steps of 100 ms through util::delay, which sleeps
// whole seconds only: a step does not sleep, so a countdown takes period/100
// passes of its loop rather than the period in wall time. Elapsed time is
// reset only by start(), so a repeating timer, once expired, calls back on
// every pass until stop(). Both properties are kept for compatibility.
//
// Own lock (the Semaphore base): start/stop and the top of each pass. Period,
// elapsed and active are also read lock-free by the worker (atomics).
// Destroy a timer only after stop(): the destructor ends the worker thread
// and waits for the run routine to return.
#ifndef CORVANE_THREAD_RUDE_TIMER_H_
#define CORVANE_THREAD_RUDE_TIMER_H_

#include <atomic>

#include "thread/semaphore.h"
#include "thread/thread_object.h"

namespace util {

// Sleeps ms/1000 whole seconds: anything below 1000 returns at once.
void delay(int ms);

class RudeTimer : public Semaphore {
 public:
  RudeTimer(int ms, bool repeat, void (*callback)(void*));
  ~RudeTimer() override;

  // Restarts the countdown; the first start of an idle timer stores `arg`
  // and wakes the worker, a start while counting keeps the first argument.
  void start(void* arg);
  // Makes the timer idle; the worker thread stays for a later start.
  void stop();
  bool isActive() const { return active_.load(std::memory_order_relaxed); }

  static void* run(void* timer);

 private:
  std::atomic<int> period_;
  std::atomic<int> elapsed_{0};
  void (*callback_)(void*);
  void* userArg_ = nullptr;
  bool repeat_;
  std::atomic<bool> active_{false};
  ThreadObject worker_;
};

}  // namespace util

#endif  // CORVANE_THREAD_RUDE_TIMER_H_
