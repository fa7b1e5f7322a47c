#include "thread/executor.h"

#include "diag/log.h"

namespace util {

Executor::Executor(TaskQueue* queue, const std::string& name) : queue_(queue), name_(name) {}

void* Executor::run(void* self) {
  static_cast<Executor*>(self)->execute();
  return nullptr;
}

void Executor::execute() {
  if (!running_) return;
  for (;;) {
    CV_LOG(1, "%s begin to popTask", name_.c_str());
    Task* task = queue_->popTask(lastTask_);
    if (task == nullptr) {
      running_ = false;
      return;
    }
    CV_LOG(1, "%s begin to perform", name_.c_str());
    task->callback(task->arg, TENGINE_EVENT_EXECUTE);
    lastTask_ = task;
    if (!running_) return;
  }
}

}  // namespace util
