#include "http/limit_speed.h"

#include <sys/time.h>
#include <unistd.h>

#include "diag/log.h"

namespace webs {

LimitSpeed::LimitSpeed() { InitSpeed(); }

long long LimitSpeed::GetTickCount() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

void LimitSpeed::InitSpeed() {
  allSize.store(0, std::memory_order_relaxed);
  avgSpeed.store(0, std::memory_order_relaxed);
  startMs.store(GetTickCount(), std::memory_order_relaxed);
  interrupted.store(false, std::memory_order_relaxed);
  limitBytes = 0;
  limitStartMs = startMs.load(std::memory_order_relaxed);
  limitInForce = maxSpeed.load(std::memory_order_relaxed);
}

void LimitSpeed::Limitspeed(unsigned long bytes) {
  long long all = allSize.fetch_add(static_cast<long long>(bytes), std::memory_order_relaxed) +
                  static_cast<long long>(bytes);
  limitBytes += static_cast<long long>(bytes);
  long long max = maxSpeed.load(std::memory_order_relaxed);
  if (max != limitInForce) {
    // A new limit counts from now: the bytes of this chunk at the new rate.
    limitInForce = max;
    limitBytes = static_cast<long long>(bytes);
    limitStartMs = GetTickCount();
  }
  if (max == 0) return;
  long long want = limitBytes * 1000 / max;
  long long actual = GetTickCount() - limitStartMs;
  CV_LOG(2, "allsize:%lld, want_ms  = %lu, actual_ms = %lu", all,
         static_cast<unsigned long>(want), static_cast<unsigned long>(actual));
  if (want <= actual) return;
  // The pause is taken as a 32-bit count of milliseconds, as devices
  // always did; a limit that would need longer simply wraps.
  unsigned int pauseMs = static_cast<unsigned int>(want - actual);
  long long until = GetTickCount() + pauseMs;
  // In slices, so that a stop (or a new limit) is seen within one of them:
  // a close or a seek waits for this callback to return.
  for (;;) {
    if (interrupted.load(std::memory_order_relaxed)) return;
    if (maxSpeed.load(std::memory_order_relaxed) != limitInForce) return;
    long long left = until - GetTickCount();
    if (left <= 0) return;
    usleep(static_cast<useconds_t>(left < kSliceMs ? left : kSliceMs) * 1000u);
  }
}

void LimitSpeed::CalAvgSpeed() {
  long long now = GetTickCount();
  long long start = startMs.load(std::memory_order_relaxed);
  if (now != start) {
    avgSpeed.store(allSize.load(std::memory_order_relaxed) * 1000 / (now - start),
                   std::memory_order_relaxed);
  }
}

}  // namespace webs
