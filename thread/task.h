// util::Task: one job for the ThreadEngine, a callback with its argument and
// the object on whose behalf it was queued.
#ifndef CORVANE_THREAD_TASK_H_
#define CORVANE_THREAD_TASK_H_

namespace util {

enum TEngineEvent_E {
  TENGINE_EVENT_EXECUTE = 0,  // an executor runs the task
  TENGINE_EVENT_CANCEL = 1,   // the task was withdrawn before it ran
};

// Callbacks do their work only for TENGINE_EVENT_EXECUTE.
typedef void (*TaskCallback)(void*, TEngineEvent_E);

class Task {
 public:
  Task(TaskCallback callback, void* arg, void* sender)
      : callback(callback), arg(arg), sender(sender) {}
  virtual ~Task() = default;

  TaskCallback callback;
  void* arg;
  void* sender;  // used only to cancel by sender
};

}  // namespace util

#endif  // CORVANE_THREAD_TASK_H_
