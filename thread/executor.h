// util::Executor: one of the ThreadEngine's worker threads. It takes tasks
// from the shared queue in arrival order and runs their callbacks with no
// engine lock held. Executors never end in normal use.
#ifndef CORVANE_THREAD_EXECUTOR_H_
#define CORVANE_THREAD_EXECUTOR_H_

#include <pthread.h>

#include <atomic>
#include <string>

#include "thread/task_queue.h"

namespace util {

class Executor {
 public:
  Executor(TaskQueue* queue, const std::string& name);
  virtual ~Executor() = default;

  static void* run(void* self);  // thread entry
  void execute();                // the work loop

  pthread_t thread{};

 private:
  TaskQueue* queue_;
  std::atomic<bool> running_{true};
  std::string name_;  // used in log lines only
  Task* lastTask_ = nullptr;
};

}  // namespace util

#endif  // CORVANE_THREAD_EXECUTOR_H_
