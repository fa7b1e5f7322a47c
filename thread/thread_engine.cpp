#include "thread/thread_engine.h"

#include <cstdio>

#include "diag/log.h"
#include "diag/log_level.h"
#include "thread/init_order.h"

namespace util {

ThreadEngine ThreadEngine::_INS_ CV_INIT_ORDER(CV_INIT_THREAD_ENGINE);

// At exit the executor threads are neither stopped nor joined. They are
// parked first, so that none still reads its Executor object when it goes;
// if one is still running a task, the objects are left to the process's end
// rather than freed under it.
ThreadEngine::~ThreadEngine() {
  if (!initialised_) return;
  const int executors = static_cast<int>(executors_.size());
  if (queue_.closeForExit(executors) == executors) {
    for (Executor* executor : executors_) delete executor;
  }
  executors_.clear();
  CV_LOG(1, "1");
}

void ThreadEngine::initialize() {
  // Exactly once even when two first opens race.
  if (initialised_.exchange(true)) return;
  for (int i = 0; i < kExecutorCount; ++i) {
    char name[16];
    std::snprintf(name, sizeof(name), "ThreadEngine %d", i);
    Executor* executor = new Executor(&queue_, name);
    CV_LOG(1, "1");
    if (pthread_create(&executor->thread, nullptr, &Executor::run, executor) != 0) {
      // Stays marked initialised with fewer executors; the failed one is
      // not stored, and the level file is not read.
      return;
    }
    CV_LOG(1, "creat thread %d OK", i);
    executors_.push_back(executor);
  }
  detectLoglevel();
  CV_LOG(1, "end to init");
}

void ThreadEngine::requestExecute(TaskCallback callback, void* arg, void* sender) {
  CV_LOG(1, "1");
  queue_.putTask(callback, arg, sender);
}

void ThreadEngine::requestExecuteOrderly(TaskCallback callback, void* arg, void* sender) {
  queue_.putTask(callback, arg, sender);
}

bool ThreadEngine::cancel(void* arg) { return queue_.cancel(arg); }

int ThreadEngine::cancelAll(void* sender) { return queue_.cancelAll(sender); }

int ThreadEngine::cancelAll() { return queue_.cancelAll(); }

}  // namespace util
