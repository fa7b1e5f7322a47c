#include "buffer/feed_monitor.h"

#include <thread>

#include "buffer/buffer_queue.h"
#include "diag/log.h"

namespace util {

FeedMonitor& FeedMonitor::instance() {
  static FeedMonitor* monitor = new FeedMonitor();
  return *monitor;
}

void FeedMonitor::add(BufferQueue* queue, int periodMs) {
  std::lock_guard<std::mutex> guard(lock_);
  if (queues_.count(queue) != 0) return;
  queues_[queue] = Entry{Clock::now() + std::chrono::milliseconds(periodMs), periodMs};
  if (!started_) {
    started_ = true;
    std::thread([this] { run(); }).detach();
  }
  changed_.notify_all();
}

void FeedMonitor::remove(BufferQueue* queue) {
  std::unique_lock<std::mutex> guard(lock_);
  queues_.erase(queue);
  while (running_ == queue) changed_.wait(guard);
}

void FeedMonitor::run() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    Clock::time_point now = Clock::now();
    BufferQueue* due = nullptr;
    Clock::time_point next = Clock::time_point::max();
    for (auto& [queue, entry] : queues_) {
      if (entry.due <= now) {
        due = queue;
        break;
      }
      if (entry.due < next) next = entry.due;
    }
    if (due == nullptr) {
      if (next == Clock::time_point::max()) {
        changed_.wait(guard);
      } else {
        changed_.wait_until(guard, next);
      }
      continue;
    }
    Entry& entry = queues_[due];
    // Counted from now, not from when it was due: a late round (a loaded
    // machine) does not bring checks in a burst.
    entry.due = now + std::chrono::milliseconds(entry.periodMs);
    running_ = due;
    guard.unlock();
    due->fillMonitor();
    guard.lock();
    running_ = nullptr;
    changed_.notify_all();
  }
}

}  // namespace util
