#include "thread/thread_object.h"

#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

ThreadObject::ThreadObject(void* (*routine)(void*)) : routine_(routine) {}

ThreadObject::~ThreadObject() {
  stop(true);
  CV_LOG(0, "1");
}

bool ThreadObject::start(void* arg) {
  SyncGuard guard(*this);
  argument_ = arg;
  bool result = false;
  if (alive_) {
    CV_LOG(0, "error, has already started");
  } else if (forceClose_) {
    CV_LOG(0, "The thread has been froced to destroyed yet, start failed %d", createResult_);
  } else {
    if (sleeping_) {
      CV_LOG(0, "Tend to wake up or restart thread, sleep:%d, alive:%d", 1, 0);
      alive_ = true;
      forceClose_ = false;
      result = true;
    }
    if (created_) {
      CV_LOG(0, "re-alive a thread before it is going to sleep");
      alive_ = true;
      result = true;
    } else {
      createResult_ = pthread_create(&thread_, nullptr, runner, this);
      // Marked created even when creation failed: a later start then reports
      // success with no thread behind it. Kept for compatibility.
      created_ = true;
      if (createResult_ != 0) {
        CV_LOG(0, "create failed%d", createResult_);
        result = false;
      } else {
        CV_LOG(0, "create thread %d", 0);
        alive_ = true;
        result = true;
      }
    }
  }
  notifyAll();
  return result;
}

void ThreadObject::stop(bool force) {
  SyncGuard guard(*this);
  if (!alive_) {
    CV_LOG(0, "1");
    if (forceClose_) {
      CV_LOG(0, "have already stopped");
      return;
    }
    if (!force) {
      CV_LOG(0, "have already paused");
      return;
    }
    if (!created_) {
      CV_LOG(0, "hasn't ever started");
      return;
    }
  }
  alive_ = false;
  forceClose_ = force;
  if (force && created_) {
    // The runner clears `created` and broadcasts as it leaves its loop.
    do {
      CV_LOG(0, "wait for thread object to be destroyed");
      notifyAll();
      wait();
    } while (created_);
  }
  CV_LOG(0, "stop OK");
}

bool ThreadObject::needExit() {
  SyncGuard guard(*this);
  return !alive_;
}

void ThreadObject::haveGone() {
  SyncGuard guard(*this);
  alive_ = false;
}

void* runner(void* object) {
  ThreadObject* self = static_cast<ThreadObject*>(object);
  self->syncBegin();
  for (;;) {
    // Cleared before every run: a routine polling needExit() sees true
    // unless someone started the object again during the run.
    self->alive_ = false;
    void* argument = self->argument_;
    self->syncEnd();
    self->routine_(argument);
    self->syncBegin();
    self->notifyAll();
    if (self->forceClose_) break;
    if (self->alive_) {
      CV_LOG(0, "thread continues next loop 1");
      continue;
    }
    self->sleeping_ = true;
    CV_LOG(0, "thread begin to sleep");
    // Only a start (alive) or a forced stop ends the sleep; a spurious
    // wake-up goes back to sleep.
    while (!self->alive_ && !self->forceClose_) self->wait();
    self->sleeping_ = false;
    CV_LOG(0, "thread woken up");
    if (self->forceClose_) break;
    CV_LOG(0, "thread continues next loop");
  }
  self->created_ = false;
  self->sleeping_ = false;
  self->notifyAll();
  self->syncEnd();
  // From here on the object may already be destroyed by the stopping thread.
  CV_LOG(0, "destroy thread");
  pthread_detach(pthread_self());
  CV_LOG(0, "attached end ");
  return object;
}

}  // namespace util
