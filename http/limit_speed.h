// webs::LimitSpeed: counts the bytes of one transfer, holds it below a
// maximum rate and gives its mean rate.
//
// Owned by webs::MethodRequest. Limitspeed() runs on the transfer's thread
// inside libcurl's body callback and sleeps there, which is what slows the
// transfer. Readers on other threads (speed queries) read the counters
// without a lock, hence the atomics; a slightly stale figure is harmless.
#ifndef CORVANE_HTTP_LIMIT_SPEED_H_
#define CORVANE_HTTP_LIMIT_SPEED_H_

#include <atomic>

namespace webs {

class LimitSpeed {
 public:
  static constexpr long long kSliceMs = 50;

  LimitSpeed();

  // Now in milliseconds of the wall clock (gettimeofday).
  static long long GetTickCount();

  void InitSpeed();
  void setMaxSpeed(long long bytesPerSecond) { maxSpeed.store(bytesPerSecond, std::memory_order_relaxed); }
  // Counts `bytes`; with a limit set, sleeps until the bytes so far fit it.
  // The sleep goes in short slices: it ends early on interrupt(), and a
  // limit changed meanwhile counts from the change on.
  void Limitspeed(unsigned long bytes);
  // Ends a sleep in Limitspeed now and any until the next InitSpeed (the
  // transfer is being stopped). From any thread.
  void interrupt() { interrupted.store(true, std::memory_order_relaxed); }
  void CalAvgSpeed();
  long long GetAvgSpeed() const { return avgSpeed.load(std::memory_order_relaxed); }

  long long getAllSize() const { return allSize.load(std::memory_order_relaxed); }
  long long getStartMs() const { return startMs.load(std::memory_order_relaxed); }
  long long getMaxSpeed() const { return maxSpeed.load(std::memory_order_relaxed); }
  void setAvgSpeed(long long value) { avgSpeed.store(value, std::memory_order_relaxed); }

 private:
  std::atomic<long long> allSize{0};
  std::atomic<long long> startMs{0};
  std::atomic<long long> maxSpeed{0};  // bytes per second; 0: no limit
  std::atomic<long long> avgSpeed{0};
  std::atomic<bool> interrupted{false};
  // The throttle's own account, transfer thread only: bytes and start since
  // the limit in force was set, so that a new limit never pays back (or
  // lends) the time of the old one.
  long long limitBytes = 0;
  long long limitStartMs = 0;
  long long limitInForce = 0;
};

}  // namespace webs

#endif  // CORVANE_HTTP_LIMIT_SPEED_H_
