// MethodRequest: the interval speed meter and the speed report.
#include <sys/time.h>

#include "diag/log.h"
#include "http/method_request.h"

namespace webs {

bool MethodRequest::showSpeed(int bytes) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  if (intervalStart.tv_sec == 0 && intervalStart.tv_usec == 0) {
    intervalStart = now;
    return true;
  }
  // A 32-bit count of microseconds, as devices always measured it.
  int elapsed = static_cast<int>((now.tv_sec - intervalStart.tv_sec) * 1000000L +
                                 (now.tv_usec - intervalStart.tv_usec));
  if (elapsed < 1000000) {
    intervalBytes += bytes;
    return true;
  }
  curl_off_t mean = 0;
  curl_easy_getinfo(curl, CURLINFO_SPEED_DOWNLOAD_T, &mean);
  curlSpeed.store(static_cast<long long>(mean), std::memory_order_relaxed);
  long long instant = intervalBytes * 1000000LL / elapsed;
  CV_LOG(0, "handle:%p, download aver_speed is %lld Bytes/s, im_speed is %lld Bytes/s",
         static_cast<void*>(this), static_cast<long long>(mean), instant);
  smoothedSpeed.store(movingAverage.push(instant), std::memory_order_relaxed);
  intervalStart = now;
  intervalBytes = bytes;
  return true;
}

long long MethodRequest::getSpeed() {
  long long mean = limiter.GetAvgSpeed();
  if (mean == 0) {
    long long now = LimitSpeed::GetTickCount();
    long long start = limiter.getStartMs();
    // With no time passed the stored figure stays as it is.
    if (now != start) {
      mean = limiter.getAllSize() * 1000 / (now - start);
      limiter.setAvgSpeed(mean);
    }
  }
  long long smoothed = smoothedSpeed.load(std::memory_order_relaxed);
  if (mean != 0 && smoothed == 0) {
    CV_LOG(0, "handle:%p, show cal_avg_speed :%lld", static_cast<void*>(this), mean);
    return mean;
  }
  if (smoothed == 0) {
    // libcurl's own mean as last read on the transfer's thread: the handle
    // is not queried from this (foreign) thread while it may be in use.
    long long curlMean = curlSpeed.load(std::memory_order_relaxed);
    CV_LOG(0, "handle:%p, show avg_speed :%lld", static_cast<void*>(this), curlMean);
    return curlMean;
  }
  CV_LOG(0, "handle:%p, show dash_speed :%lld  cal_avg_speed :%lld", static_cast<void*>(this),
         smoothed, mean);
  return smoothed;
}

void MethodRequest::setSpeed(long long bytesPerSecond) {
  maxSpeedSetting.store(bytesPerSecond, std::memory_order_relaxed);
  limiter.setMaxSpeed(bytesPerSecond);
}

}  // namespace webs

long long getSpeed() { return 0; }
