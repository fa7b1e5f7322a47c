// util::FeedMonitor: the one thread that runs every queue's feeding check
// (BufferQueue::fillMonitor) a period after that queue's previous one.
//
// One thread for the process instead of one per open file: an open that
// starts a thread and a close that joins it cost more than the whole first
// read of a small file on a loopback server. The thread is started by the
// first queue that asks and never ends; the object is never destroyed, so
// process exit neither waits for it nor destroys a condition it sleeps on.
//
// A queue's check never runs after remove() has returned. The monitor's own
// lock is never held while a check runs, so checks may take any queue lock.
#ifndef CORVANE_BUFFER_FEED_MONITOR_H_
#define CORVANE_BUFFER_FEED_MONITOR_H_

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace util {

class BufferQueue;

class FeedMonitor {
 public:
  static FeedMonitor& instance();

  // Checks `queue` every `periodMs` from now on (no-op when already added).
  void add(BufferQueue* queue, int periodMs);
  // Ends the checks of `queue`; waits for one that is running.
  void remove(BufferQueue* queue);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    Clock::time_point due;
    int periodMs;
  };

  FeedMonitor() = default;
  void run();

  std::mutex lock_;
  std::condition_variable changed_;
  std::map<BufferQueue*, Entry> queues_;
  BufferQueue* running_ = nullptr;  // the queue whose check runs now
  bool started_ = false;
};

}  // namespace util

#endif  // CORVANE_BUFFER_FEED_MONITOR_H_
