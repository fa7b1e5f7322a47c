// util::Semaphore: the library's one lock type, a mutex paired with one
// condition variable and used as a monitor.
//
// Callers bracket shared state with syncBegin()/syncEnd() (or the guards in
// thread/sync_guard.h) and re-test their condition in a loop around wait().
// The int parameters of wait/notify/notifyAll are part of the interface and
// have no effect: there is no time-out.
#ifndef CORVANE_THREAD_SEMAPHORE_H_
#define CORVANE_THREAD_SEMAPHORE_H_

#include <pthread.h>

namespace util {

class Semaphore {
 public:
  Semaphore();
  virtual ~Semaphore();

  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  int syncBegin();
  int syncEnd();
  // REQUIRES: the lock held. Releases it while sleeping.
  int wait(int unused = 0);
  int notify(int unused = 0);
  int notifyAll(int unused = 0);

 private:
  pthread_mutex_t mutex_;
  pthread_cond_t cond_;
};

}  // namespace util

#endif  // CORVANE_THREAD_SEMAPHORE_H_
