// MethodRequest: the body and progress callbacks and the two stall checks.
// All of it runs on the transfer's thread, inside curl_easy_perform.
#include "diag/log.h"
#include "http/method_request.h"
#include "thread/sync_guard.h"

namespace webs {

size_t MethodRequest::response(char* data, size_t size, size_t count, void* request) {
  CV_LOG(2, "response in");
  auto* self = static_cast<MethodRequest*>(request);
  int result = self->sendData(data, static_cast<int>(size * count));
  return result < 0 ? 0 : static_cast<size_t>(result);
}

int MethodRequest::sendData(void* data, int length) {
  char* type = nullptr;
  curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &type);
  {
    util::SyncGuard guard(*this);
    contentType = type != nullptr ? type : "";
  }
  // The stall checks now time the gap after this chunk: only the data check
  // runs, from the next progress callback on.
  lastDataTime = 0;
  lifeCount = 0;
  timeoutNum = -1;
  CV_LOG(2, "(handle:%p) Data In  size = %d, version = %d", static_cast<void*>(this), length,
         version);
  int taken = requestor != nullptr ? requestor->receive(data, length, curl, version) : length;
  limiter.Limitspeed(static_cast<unsigned long>(length));
  showSpeed(length);
  return taken;
}

int MethodRequest::progressCallback(void* request, double, double, double, double) {
  auto* self = static_cast<MethodRequest*>(request);
  long now = nowMicros();
  util::SyncGuard guard(*self);
  if (self->active == 0) {
    CV_LOG(0, "begin to break out from curl progress");
    return 1;
  }
  // Both checks run on every call; each one knows from its own counter
  // whether it is armed.
  bool abortOnData = self->progressCount(now);
  bool abortOnTime = self->timeoutCount(now);
  return (abortOnData || abortOnTime) ? 1 : 0;
}

bool MethodRequest::progressCount(long now) {
  if (lifeCount < 0) return false;
  if (lifeCount == 0 && lastDataTime == 0) {
    lastDataTime = now;
    return false;
  }
  lifeCount = now - lastDataTime;
  if (lifeCount >= stallLimitSeconds * 1000000L) {
    CV_LOG(-4, "handle:%p, Too long time no data comes, the connection is die, disconnect actively:%ld",
           static_cast<void*>(this), lifeCount);
    return true;
  }
  if (lifeCount >= kBreakSilenceUs && breakFlag.load(std::memory_order_relaxed)) {
    CV_LOG(-4, "handle:%p, %ld s no data comes, customer cancel read", static_cast<void*>(this),
           lifeCount);
    breakFlag.store(false, std::memory_order_relaxed);
    return true;
  }
  if (lifeCount > 999999) {
    CV_LOG(-4, "handle:%p, The http connection speed is low and %ld seconds has no data responded",
           static_cast<void*>(this), lifeCount);
  }
  return false;
}

bool MethodRequest::timeoutCount(long now) {
  if (timeoutNum == -1) return false;
  // Before the first chunk nothing has set the shared time base yet; the
  // first progress callback does.
  if (lastDataTime == 0) {
    lastDataTime = now;
    timeoutNum = 0;
    return false;
  }
  timeoutNum = now - lastDataTime;
  if (timeoutNum >= kFirstByteLimitUs) {
    CV_LOG(0, "At least %ld s No data in, don't wait anymaore...", timeoutNum);
    return true;
  }
  if (timeoutNum >= kBreakSilenceUs && (breakFlag.load(std::memory_order_relaxed) || active == 0)) {
    CV_LOG(-4, "handle:%p, %ld s no data comes, customer cancel read", static_cast<void*>(this),
           lifeCount);
    breakFlag.store(false, std::memory_order_relaxed);
    return true;
  }
  if (timeoutNum > 999999) {
    CV_LOG(0, "At least %ld s No data in", timeoutNum);
  }
  return false;
}

}  // namespace webs
