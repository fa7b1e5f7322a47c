// util::TaskQueue: the ThreadEngine's first-in, first-out job queue.
//
// A Task moves pending -> running -> free and is recycled, never deleted
// while the queue lives. Everything is guarded by the queue's own lock (the
// Semaphore base). Cancel callbacks run on the cancelling thread with that
// lock held: they must be short and must not call back into the engine.
#ifndef CORVANE_THREAD_TASK_QUEUE_H_
#define CORVANE_THREAD_TASK_QUEUE_H_

#include <list>

#include "thread/semaphore.h"
#include "thread/task.h"

namespace util {

class TaskQueue : public Semaphore {
 public:
  TaskQueue() = default;
  ~TaskQueue() override;

  void putTask(TaskCallback callback, void* arg, void* sender);
  // Gives back `finished` (may be null) and blocks until a task is pending.
  Task* popTask(Task* finished);
  // Withdraws the first pending task of `arg`, reporting TENGINE_EVENT_CANCEL.
  bool cancel(void* arg);
  // Withdraws every pending task of `sender`, each reported once; the count.
  int cancelAll(void* sender);
  // Drops every pending task without telling anyone; the count.
  int cancelAll();

  // At process exit: moves every executor waiting for work off the lock and
  // condition and parks it for good, and gives up to `executors` executors
  // still running a task a short grace to come back and park too. Returns
  // how many executors are parked.
  int closeForExit(int executors = 0);

  static bool isTaskOfArg(Task* task);
  static bool isTaskOfSender(Task* task);

  // The value the match predicates compare against; written and read only
  // under the lock of the one queue of the process.
  static void* tmpObject;

 private:
  void parkForever();  // REQUIRES: lock held; releases it and never returns

  std::list<Task*> pending_;
  std::list<Task*> running_;
  std::list<Task*> free_;
  bool closing_ = false;  // the queue is being destroyed at process exit
  int waiting_ = 0;       // executors asleep in popTask
  int parked_ = 0;        // executors parked for good by closeForExit
};

}  // namespace util

#endif  // CORVANE_THREAD_TASK_QUEUE_H_
