#include "thread/rude_timer.h"

#include <unistd.h>

#include "diag/log.h"
#include "thread/sync_guard.h"

namespace util {

void delay(int ms) { sleep(static_cast<unsigned>(ms / 1000)); }

RudeTimer::RudeTimer(int ms, bool repeat, void (*callback)(void*))
    : period_(ms), callback_(callback), repeat_(repeat), worker_(&RudeTimer::run) {
  if (ms <= 99) {
    CV_LOG(0, "Error setting, the give timer time is too little:%d mseconds", ms);
  }
}

RudeTimer::~RudeTimer() { CV_LOG(0, "begin to stop timer thread"); }

void RudeTimer::start(void* arg) {
  SyncGuard guard(*this);
  elapsed_ = 0;
  if (!active_) {
    active_ = true;
    userArg_ = arg;
    worker_.start(this);
  }
}

void RudeTimer::stop() {
  SyncGuard guard(*this);
  active_ = false;
  worker_.stop(false);
}

void* RudeTimer::run(void* timer) {
  RudeTimer* self = static_cast<RudeTimer*>(timer);
  CV_LOG(0, "RudeTimer run loop");
  for (;;) {
    void* arg = nullptr;
    {
      SyncGuard guard(*self);
      if (!self->active_) return nullptr;
      arg = self->userArg_;
    }
    while (self->elapsed_ < self->period_) {
      if (!self->active_) {
        CV_LOG(0, "Timer is interrupted:%d ~ %d", self->elapsed_.load(), self->period_.load());
        return nullptr;
      }
      delay(100);
      self->elapsed_ += 100;
    }
    if (!self->active_) {
      CV_LOG(0, "Timer is interrupted:%d ~ %d", self->elapsed_.load(), self->period_.load());
      return nullptr;
    }
    CV_LOG(0, "Timer out:%d ~ %d", self->elapsed_.load(), self->period_.load());
    self->callback_(arg);
    if (!self->repeat_) {
      self->active_ = false;
      return nullptr;
    }
  }
}

}  // namespace util
