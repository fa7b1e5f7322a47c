// Scoped holders of a Semaphore's lock.
#ifndef CORVANE_THREAD_SYNC_GUARD_H_
#define CORVANE_THREAD_SYNC_GUARD_H_

#include "thread/semaphore.h"

namespace util {

// Holds the lock for the guard's scope.
class SyncGuard {
 public:
  explicit SyncGuard(Semaphore& s) : s_(s) { s_.syncBegin(); }
  ~SyncGuard() { s_.syncEnd(); }
  SyncGuard(const SyncGuard&) = delete;
  SyncGuard& operator=(const SyncGuard&) = delete;

 private:
  Semaphore& s_;
};

// Releases a held lock for the guard's scope and takes it back at the end:
// for a stretch (a producer call, a client callback) that must run unlocked.
// REQUIRES: the lock held on entry.
class SyncUnguard {
 public:
  explicit SyncUnguard(Semaphore& s) : s_(s) { s_.syncEnd(); }
  ~SyncUnguard() { s_.syncBegin(); }
  SyncUnguard(const SyncUnguard&) = delete;
  SyncUnguard& operator=(const SyncUnguard&) = delete;

 private:
  Semaphore& s_;
};

}  // namespace util

#endif  // CORVANE_THREAD_SYNC_GUARD_H_
