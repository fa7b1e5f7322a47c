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
}

void LimitSpeed::Limitspeed(unsigned long bytes) {
  long long all = allSize.fetch_add(static_cast<long long>(bytes), std::memory_order_relaxed) +
                  static_cast<long long>(bytes);
  long long max = maxSpeed.load(std::memory_order_relaxed);
  if (max == 0) return;
  long long want = all * 1000 / max;
  long long actual = GetTickCount() - startMs.load(std::memory_order_relaxed);
  CV_LOG(2, "allsize:%lld, want_ms  = %lu, actual_ms = %lu", all,
         static_cast<unsigned long>(want), static_cast<unsigned long>(actual));
  if (want > actual) {
    // The pause is taken as a 32-bit count of milliseconds, as devices
    // always did; a limit that would need longer simply wraps.
    unsigned int pauseMs = static_cast<unsigned int>(want - actual);
    usleep(static_cast<useconds_t>(pauseMs) * 1000u);
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
