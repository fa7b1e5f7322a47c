#include "http/method_request.h"

#include <cstring>
#include <mutex>

#include "diag/log.h"
#include "thread/sync_guard.h"

namespace webs {

namespace {

// libcurl's global state must be set up once before any thread creates an
// easy handle; every handle is made by a MethodRequest, so the first
// construction does it. Never undone: other threads may still hold handles
// at exit.
void initCurlGlobalOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

}  // namespace

static_assert(kTransferHostUnresolved == CURLE_COULDNT_RESOLVE_HOST, "libcurl code");
static_assert(kTransferConnectFailed == CURLE_COULDNT_CONNECT, "libcurl code");
static_assert(kTransferPartialFile == CURLE_PARTIAL_FILE, "libcurl code");
static_assert(kTransferBodyRefused == CURLE_WRITE_ERROR, "libcurl code");
static_assert(kTransferTimedOut == CURLE_OPERATION_TIMEDOUT, "libcurl code");
static_assert(kTransferStopped == CURLE_ABORTED_BY_CALLBACK, "libcurl code");

MethodRequest::MethodRequest() {
  initCurlGlobalOnce();
  std::memset(headerBuffer, 0, sizeof(headerBuffer));
}

MethodRequest::~MethodRequest() {
  if (curl != nullptr) curl_easy_cleanup(curl);
  if (aliases != nullptr) curl_slist_free_all(aliases);
  clearParams();
}

void MethodRequest::initialize(Requestor* r, std::string const& url) {
  requestor = r;
  InitCurl(url.c_str());
}

void MethodRequest::setRequestor(Requestor* r) { requestor = r; }

long MethodRequest::nowMicros() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<long>(now.tv_sec) * 1000000L + static_cast<long>(now.tv_usec);
}

int MethodRequest::executeGet(std::string const& url, long long from, long long to, int ver) {
  if (curl == nullptr) InitCurl(nullptr);
  version = ver;
  if (url.find("hbbtv") != std::string::npos || url.find("HBBTV") != std::string::npos) {
    rangeAllowed = false;
  }
  stallLimitSeconds = featureFlag.load(std::memory_order_relaxed) == 1 ? 4 : 35;
  std::string fullUrl = buildUrl(url);
  curl_easy_setopt(curl, CURLOPT_URL, fullUrl.c_str());
  applyStoredOptions();
  bool bounded = to != 0;
  unsigned long startMark;
  {
    util::SyncGuard guard(*this);
    startMark = armed ? armedStopCount : stopCount;
    armed = false;
  }

  CURLcode code = CURLE_OK;
  long responseCode = 0;
  curl_off_t downloaded = 0;
  for (int attempt = 0; attempt < 2; ++attempt) {
    char range[64];
    if (rangeAllowed && attempt == 0) {
      CV_LOG(0, "set fgrangeget to true");
      rangeGet.store(true, std::memory_order_relaxed);
      if (bounded) {
        snprintf(range, sizeof(range), "%lld-%lld", from, to);
      } else {
        snprintf(range, sizeof(range), "%lld-", from);
      }
      curl_easy_setopt(curl, CURLOPT_RANGE, range);
    } else {
      CV_LOG(0, "set fgrangeget to false");
      // The line above names the flag's new state: the answer to a request
      // without a range must not be judged as a range answer.
      rangeGet.store(false, std::memory_order_relaxed);
      curl_easy_setopt(curl, CURLOPT_RANGE, static_cast<char*>(nullptr));
    }
    {
      util::SyncGuard guard(*this);
      if (stopCount != startMark) {
        // A stop() that came before this perform (after the owner armed the
        // transfer, or between two attempts) would otherwise be lost: it
        // found nothing running and returned. End as a stopped transfer.
        code = CURLE_ABORTED_BY_CALLBACK;
        break;
      }
      active = 1;
      performing = true;
    }
    CV_LOG(-4, "handle:%p, PFFFF begin to perform(url: %s, start: %lld, end: %lld)",
           static_cast<void*>(this), fullUrl.c_str(), from, to);

    timeoutNum = 0;
    lastDataTime = 0;
    lifeCount = -1;
    limiter.InitSpeed();
    intervalBytes = 0;
    intervalStart = timeval{};
    resetHeaders();
    ++performs;
    code = curl_easy_perform(curl);
    limiter.CalAvgSpeed();

    curl_off_t speed = 0;
    long socketErrno = 0;
    curl_easy_getinfo(curl, CURLINFO_SPEED_DOWNLOAD_T, &speed);
    curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &downloaded);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &responseCode);
    curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &socketErrno);
    curlSpeed.store(static_cast<long long>(speed), std::memory_order_relaxed);
    osErrno.store(socketErrno, std::memory_order_relaxed);
    CV_LOG(-4,
           "QM handle:%p, curl_easy_perform ret:%d, respond code:%ld, socket_errno:%ld, "
           "cal_speed:%lld Byte/s, maxspeed:%lld Byte/s, download End size %lld Byte",
           static_cast<void*>(this), static_cast<int>(code), responseCode, socketErrno,
           limiter.GetAvgSpeed(), maxSpeedSetting.load(std::memory_order_relaxed),
           static_cast<long long>(downloaded));
    if (code == CURLE_OK && !bounded) {
      fileSize.store(from + static_cast<long long>(downloaded), std::memory_order_relaxed);
      CV_LOG(2, "get file size : %lld", fileSize.load(std::memory_order_relaxed));
    }
    if (attempt == 0 && responseCode == 416 && rangeAllowed) {
      CV_LOG(0, "the range request is not supported by server, i4_retry = %d\n", 0);
      rangeAllowed = false;
      {
        util::SyncGuard guard(*this);
        performing = false;
        notifyAll();
      }
      continue;
    }
    break;
  }

  int result;
  util::SyncGuard guard(*this);
  if (responseCode >= 400) {
    result = static_cast<int>(responseCode);
  } else if ((responseCode == 200 || responseCode == 206) && downloaded == 0 &&
             code == CURLE_OK) {
    CV_LOG(0, "error, file size is 0");
    result = kResultNotFound;
  } else if (code == CURLE_ABORTED_BY_CALLBACK && active != 0) {
    // Still active: a stall check aborted, not stop().
    CV_LOG(2, "timeoutNum=%ld, lifeCount=%ld", timeoutNum, lifeCount);
    result = (timeoutNum < kFirstByteLimitUs && lifeCount < stallLimitSeconds * 1000000L)
                 ? kResultBroken
                 : kResultStalled;
  } else {
    result = static_cast<int>(code);
  }
  active = 0;
  performing = false;
  notifyAll();
  return result;
}

long MethodRequest::getResponseCode() {
  long code = 0;
  if (curl != nullptr) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  return code;
}

void MethodRequest::setBreak() {
  CV_LOG(0, "MethodRequest:: call Break");
  breakFlag.store(true, std::memory_order_relaxed);
}

void MethodRequest::setStopWait() {
  stopWait.store(true, std::memory_order_relaxed);
  CV_LOG(1, "stopwait : %d\n", 1);
}

void MethodRequest::stop() {
  util::SyncGuard guard(*this);
  CV_LOG(0, "MethodRequest begin to stop active = %d", active);
  stopWait.store(false, std::memory_order_relaxed);
  ++stopCount;
  // A transfer held back by the speed limit sleeps in its body callback;
  // it must come out to see the stop.
  limiter.interrupt();
  if (active != 0) {
    active = 0;
    CV_LOG(1, "notify curl to stop and wait stop end");
    // The transfer's next progress callback sees `active` cleared and aborts;
    // executeGet then clears `performing` and wakes us.
    while (performing) wait();
  }
  CV_LOG(1, "MethodRequest begin to stop End");
}

void MethodRequest::armTransfer() {
  util::SyncGuard guard(*this);
  armedStopCount = stopCount;
  armed = true;
}

void MethodRequest::pushParam(std::string const& name, std::string const& value) {
  MethodParam* record = MethodParamStation::_INS_.claim();
  record->name = name;
  record->value = value;
  if (lastParam == nullptr) {
    params = record;
  } else {
    lastParam->next = record;
  }
  lastParam = record;
}

void MethodRequest::clearParams() {
  MethodParamStation::_INS_.recycle(params);
  params = nullptr;
  lastParam = nullptr;
}

std::string MethodRequest::buildParam2URL(std::string const& url) {
  std::string out = url;
  char separator = url.find('?') == std::string::npos ? '?' : '&';
  for (MethodParam* p = params; p != nullptr; p = p->next) {
    char* name = curl_easy_escape(nullptr, p->name.c_str(), static_cast<int>(p->name.size()));
    char* value = curl_easy_escape(nullptr, p->value.c_str(), static_cast<int>(p->value.size()));
    out += separator;
    out += name != nullptr ? name : "";
    out += '=';
    out += value != nullptr ? value : "";
    curl_free(name);
    curl_free(value);
    separator = '&';
  }
  return out;
}

std::string MethodRequest::buildUrl(std::string const& url) {
  return params == nullptr ? url : buildParam2URL(url);
}

}  // namespace webs
