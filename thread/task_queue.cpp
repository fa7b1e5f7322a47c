#include "thread/task_queue.h"

#include <unistd.h>

#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

void* TaskQueue::tmpObject = nullptr;

// Executors wait here forever. On glibc, destroying a condition variable
// blocks while threads still wait on it, so before the lock and condition
// go away at exit every waiting executor is moved off them and parked.
// Task objects themselves are not freed: an executor may still hold one.
TaskQueue::~TaskQueue() { closeForExit(); }

int TaskQueue::closeForExit(int executors) {
  SyncGuard guard(*this);
  closing_ = true;
  notifyAll();
  while (waiting_ > 0) wait();
  // An executor still running a task parks when it comes back for the next
  // one; a bounded grace, so that a task blocked for good cannot hang exit.
  for (int i = 0; i < 2000 && parked_ < executors; ++i) {
    SyncUnguard unlocked(*this);
    usleep(1000);
  }
  return parked_;
}

void TaskQueue::parkForever() {
  ++parked_;
  notifyAll();
  syncEnd();
  for (;;) pause();
}

void TaskQueue::putTask(TaskCallback callback, void* arg, void* sender) {
  SyncGuard guard(*this);
  Task* task = nullptr;
  if (!free_.empty()) {
    task = free_.front();
    free_.pop_front();
    task->callback = callback;
    task->arg = arg;
    task->sender = sender;
  } else {
    task = new Task(callback, arg, sender);
  }
  pending_.push_back(task);
  notifyAll();
}

Task* TaskQueue::popTask(Task* finished) {
  syncBegin();
  if (finished != nullptr) {
    running_.remove(finished);
    free_.push_back(finished);
  }
  while (closing_ || pending_.empty()) {
    if (closing_) parkForever();
    CV_LOG(1, "thread engine waiting for task");
    ++waiting_;
    wait();
    --waiting_;
    if (closing_) parkForever();
  }
  Task* task = pending_.front();
  pending_.pop_front();
  running_.push_back(task);
  CV_LOG(1, "thread engine has got a task");
  syncEnd();
  return task;
}

bool TaskQueue::cancel(void* arg) {
  SyncGuard guard(*this);
  tmpObject = arg;
  for (auto it = pending_.begin(); it != pending_.end(); ++it) {
    if (isTaskOfArg(*it)) {
      Task* task = *it;
      task->callback(task->arg, TENGINE_EVENT_CANCEL);
      free_.push_back(task);
      pending_.erase(it);
      return true;
    }
  }
  return false;
}

int TaskQueue::cancelAll(void* sender) {
  SyncGuard guard(*this);
  tmpObject = sender;
  int count = 0;
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (isTaskOfSender(*it)) {
      Task* task = *it;
      task->callback(task->arg, TENGINE_EVENT_CANCEL);
      free_.push_back(task);
      it = pending_.erase(it);
      ++count;
    } else {
      ++it;
    }
  }
  return count;
}

int TaskQueue::cancelAll() {
  SyncGuard guard(*this);
  int count = static_cast<int>(pending_.size());
  free_.splice(free_.end(), pending_);
  return count;
}

bool TaskQueue::isTaskOfArg(Task* task) { return task->arg == tmpObject; }

bool TaskQueue::isTaskOfSender(Task* task) { return task->sender == tmpObject; }

}  // namespace util
