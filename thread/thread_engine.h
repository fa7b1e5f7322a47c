// util::ThreadEngine: the process-wide pool of six executors serving one
// FIFO task queue. The single instance, _INS_, is built at load with no
// threads; the first initialize() creates them (and reads the log level
// file). Tasks run on an executor thread; cancel reports run on the
// cancelling thread with the queue locked.
//
// requestExecuteOrderly promises no more order than requestExecute: both go
// to the back of the one queue and two tasks of one sender may run at once.
#ifndef CORVANE_THREAD_THREAD_ENGINE_H_
#define CORVANE_THREAD_THREAD_ENGINE_H_

#include <atomic>
#include <vector>

#include "thread/executor.h"
#include "thread/task_queue.h"

namespace util {

class ThreadEngine {
 public:
  static constexpr int kExecutorCount = 6;

  ThreadEngine() = default;
  virtual ~ThreadEngine();

  // Creates the executors once; later calls return at once.
  void initialize();
  void requestExecute(TaskCallback callback, void* arg, void* sender);
  void requestExecuteOrderly(TaskCallback callback, void* arg, void* sender);
  bool cancel(void* arg);
  int cancelAll(void* sender);
  int cancelAll();

  static ThreadEngine _INS_;

 private:
  TaskQueue queue_;
  std::vector<Executor*> executors_;
  std::atomic<bool> initialised_{false};
};

}  // namespace util

#endif  // CORVANE_THREAD_THREAD_ENGINE_H_
