// util::ThreadObject: a restartable worker thread.
//
// One system thread runs the routine once per start request and then sleeps
// on the object's condition instead of ending, so a later start wakes the
// same thread. Only stop(true) ends the thread; the object can never run
// again afterwards. The object is its own monitor: every flag change happens
// under its lock, except the four accessors documented as lock-free, which is
// why the flags are atomics.
//
// Any thread may start or stop the worker, except that stop(true) from the
// worker thread itself would wait forever.
#ifndef CORVANE_THREAD_THREAD_OBJECT_H_
#define CORVANE_THREAD_THREAD_OBJECT_H_

#include <pthread.h>

#include <atomic>

#include "thread/semaphore.h"

namespace util {

void* runner(void* object);

class ThreadObject : public Semaphore {
 public:
  explicit ThreadObject(void* (*routine)(void*));
  ~ThreadObject() override;

  // Requests one run of the routine with `arg` (stored even when refused).
  // True if a run is now requested; false when already requested, after a
  // forced stop, or when the thread could not be created.
  bool start(void* arg);
  // false: drop a pending request; the current run ends and the thread
  // sleeps. true: end the thread for good and wait until it has left.
  void stop(bool force);

  bool needExit();  // under the lock: no run requested
  bool isAlive() const { return alive_.load(std::memory_order_relaxed); }
  bool needForceClose() const { return forceClose_.load(std::memory_order_relaxed); }
  void haveGone();  // under the lock: clear the request
  void haveDestoryed() { created_.store(false, std::memory_order_relaxed); }
  void haveSleeped() { sleeping_.store(true, std::memory_order_relaxed); }
  void haveWakeup() { sleeping_.store(false, std::memory_order_relaxed); }

 private:
  friend void* runner(void* object);

  void* (*routine_)(void*);
  void* argument_ = nullptr;
  std::atomic<bool> alive_{false};       // a run is requested
  std::atomic<bool> forceClose_{false};  // stop(true) was called
  std::atomic<bool> created_{false};     // a system thread exists
  std::atomic<bool> sleeping_{false};    // the thread waits for a start
  pthread_t thread_{};
  int createResult_ = 0;
};

}  // namespace util

#endif  // CORVANE_THREAD_THREAD_OBJECT_H_
