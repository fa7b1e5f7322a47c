#include "thread/semaphore.h"

namespace util {

Semaphore::Semaphore() {
  pthread_mutex_init(&mutex_, nullptr);
  pthread_cond_init(&cond_, nullptr);
}

Semaphore::~Semaphore() {
  pthread_cond_destroy(&cond_);
  pthread_mutex_destroy(&mutex_);
}

int Semaphore::syncBegin() { return pthread_mutex_lock(&mutex_); }

int Semaphore::syncEnd() { return pthread_mutex_unlock(&mutex_); }

int Semaphore::wait(int) { return pthread_cond_wait(&cond_, &mutex_); }

int Semaphore::notify(int) { return pthread_cond_signal(&cond_); }

int Semaphore::notifyAll(int) { return pthread_cond_broadcast(&cond_); }

}  // namespace util
