#include "source/http_file_request.h"

#include <curl/curl.h>

#include <chrono>
#include <thread>

#include "diag/log.h"
#include "http/transfer_result.h"
#include "thread/sync_guard.h"

namespace webs {

namespace {

// The line each string option setter logs, by HttpOption.
constexpr char const* kOptionLogLines[kHttpOptionCount] = {
    "set UAString = %s",
    "set http proxy :%s",
    "set http cookie :%s",
    "set CA path:%s",
    "set CA Info:%s",
    "set Client Authertication:%s",
    "set Private Key:%s",
    "set Key Type:%s",
};

// The end of a failure the broadcaster of feature flag 1 retries: with the
// flag, `gjzLine` and the retriable `gjzEvent`; without it, `otherLine`
// (when given) and the final not-found event.
int retriedUnderGJZ(bool gjz, char const* gjzLine, int gjzEvent, char const* otherLine) {
  if (gjz) {
    CV_LOG(0, "%s", gjzLine);
    return gjzEvent;
  }
  if (otherLine != nullptr) CV_LOG(-4, "%s", otherLine);
  return util::EVENT_STREAM_NOT_FOUND;
}

}  // namespace

HttpFileRequest::HttpFileRequest(std::string const& location) : FileRequest(location) {}

HttpFileRequest::~HttpFileRequest() {
  // The owner releases (stops) before deleting; a transfer still running
  // here would use a dead object, so make sure none is.
  stopStreaming();
}

bool HttpFileRequest::initialize() {
  method.initialize(this, "");
  return true;
}

int HttpFileRequest::startStreaming(int ver, long long start, long long cnt) {
  if (out == nullptr) return -1;
  version = ver;
  running.store(true, std::memory_order_relaxed);
  from = start;
  count = cnt;
  CV_LOG(0, "begin to start requestCount=%lld", cnt);
  received = 0;
  sendRequest();
  return 0;
}

int HttpFileRequest::stopStreaming() {
  CV_LOG(0, "begin to stop streaming");
  {
    util::SyncGuard guard(*this);
    running.store(false, std::memory_order_relaxed);
  }
  // Not under our lock: the transfer thread may need it (wakeWaiters) before
  // it reaches the progress callback that lets method.stop() return.
  method.stop();
  {
    util::SyncGuard guard(*this);
    while (!finished) wait();
  }
  CV_LOG(0, "End to stop streaming");
  return 0;
}

void HttpFileRequest::release() { stopStreaming(); }

void HttpFileRequest::setBreak() {
  CV_LOG(0, "HttpFileRequest::call setBreak");
  method.setBreak();
}

void HttpFileRequest::wakeWaiters() {
  util::SyncGuard guard(*this);
  notifyAll();
}

void HttpFileRequest::sendRequest() {
  long long start;
  long long last;
  // Armed before `running` is tested: a stopStreaming whose clearing of
  // `running` comes after the test reaches method.stop() after this point,
  // so the transfer ends at once even if it has not begun to perform.
  method.armTransfer();
  {
    util::SyncGuard guard(*this);
    if (!running.load(std::memory_order_relaxed)) {
      util::SyncUnguard unguard(*this);
      CV_LOG(0, "alive == fasle, stopStream here  !");
      return;
    }
    CV_LOG(0, "http begin to get from:%s, %lld~%lld", location.c_str(), from, count);
    finished = false;
    start = from;
    last = count != 0 ? from + count - 1 : 0;
  }
  if (headerChecked && !seekable.load(std::memory_order_relaxed) && from >= 1) {
    CV_LOG(-4, "server not support seek, but requestOffset is %lld, so download data from 0", from);
    start = 0;
  }
  requestStart = start;
  int result = method.executeGet(location, start, last, version);
  CV_LOG(0, "errorCode:%d", result);
  int event = eventForResult(result);
  // The event goes out before `finished` is set, so a stopStreaming returns
  // only after the sink has heard the end; the sink is called unlocked.
  if (out != nullptr) out->notifyStreamException(event);
  util::SyncGuard guard(*this);
  finished = true;
  notifyAll();
}

int HttpFileRequest::eventForResult(int result) {
  bool gjz = featureFlag.load(std::memory_order_relaxed) == kFeatureFlagGJZ;
  if (result >= 400) {
    downloadStatus.store(result, std::memory_order_relaxed);
    return (result >= 500 && result < 600) ? util::EVENT_STREAM_NOT_AVAILABLE
                                           : util::EVENT_STREAM_NOT_FOUND;
  }
  switch (result) {
    case kTransferOk: {
      long long size = contentSize.load(std::memory_order_relaxed);
      if (size == 0 || size == kUnknownContentSize) {
        contentSize.store(method.getFileSize(), std::memory_order_relaxed);
        CV_LOG(0, "setFileSize: %lld", contentSize.load(std::memory_order_relaxed));
      }
      CV_LOG(0, "[QM]return EVENT_STREAM_PARTIAL_END");
      return util::EVENT_STREAM_PARTIAL_END;
    }
    case kTransferPartialFile:
      CV_LOG(0, "[QM]return EVENT_STREAM_PARTIAL_END");
      return util::EVENT_STREAM_PARTIAL_END;
    case kTransferHostUnresolved:
      downloadStatus.store(DOWNLOAD_DNS_UNABLE_RESOLVED, std::memory_order_relaxed);
      return retriedUnderGJZ(gjz, "GJZ Case DOWNLOAD_DNS_UNABLE_RESOLVED",
                             util::EVENT_STREAM_ERROR, "NO GJZ CASE, couldn't resolve host");
    case kTransferConnectFailed: {
      long socketError = method.getErrno();
      if (socketError == kSocketHostUnreachable) {
        downloadStatus.store(DOWNLOAD_CONNECT_FAIL, std::memory_order_relaxed);
        CV_LOG(0, "set status DOWNLOAD_CONNECT_FAIL");
      } else if (socketError == kSocketConnectRefused) {
        downloadStatus.store(DOWNLOAD_CONNECT_REJECT, std::memory_order_relaxed);
        CV_LOG(0, "set status DOWNLOAD_CONNECT_REJECT");
      }
      CV_LOG(0, "notify EVENT_STREAM_ERROR");
      return util::EVENT_STREAM_NOT_FOUND;
    }
    case kTransferBodyRefused:
      return util::EVENT_STREAM_CANCEL;
    case kTransferTimedOut:
      downloadStatus.store(DOWNLOAD_TIMEOUT, std::memory_order_relaxed);
      return util::EVENT_STREAM_TIMEOUT;
    case kTransferStopped:
      downloadStatus.store(DOWNLOAD_DISCONNECTED, std::memory_order_relaxed);
      CV_LOG(-5, "aborted by callback :%d", result);
      CV_LOG(-5, "disconnection");
      return util::EVENT_STREAM_CANCEL;
    case kTransferBroken:
      downloadStatus.store(DOWNLOAD_DISCONNECTED, std::memory_order_relaxed);
      CV_LOG(0, "connection is dead");
      return util::EVENT_STREAM_DEAD;
    case kTransferStalled:
      downloadStatus.store(DOWNLOAD_NOT_REVEIVE_DATA, std::memory_order_relaxed);
      return retriedUnderGJZ(gjz, "GJZ Case DOWNLOAD_NOT_REVEIVE_DATA", util::EVENT_STREAM_TIMEOUT,
                             nullptr);
    default:
      CV_LOG(0, "HttpFileRequest error:%d ", result);
      return util::EVENT_STREAM_ERROR;
  }
}

int HttpFileRequest::receive(void* data, int size, void* curl, int ver) {
  if (method.performSerial() != checkedPerform && !checkAnswer(curl)) return 0;
  if (out != nullptr && !deliver(data, size, ver)) {
    CV_LOG(0, "to terminate http perform");
    return 0;
  }
  if (running.load(std::memory_order_relaxed)) return size;
  spinWhileStopWait(true);
  return 0;
}

bool HttpFileRequest::checkAnswer(void* curl) {
  checkedPerform = method.performSerial();
  received = 0;
  if (!headerChecked) {
    if (!analyseFirstChunk(curl)) return false;
  } else {
    // Size and seekability were settled by the source's first answer; a
    // later one (a reconnection, a seek) may still be an error page, whose
    // body is not content. The transfer's result carries the code.
    long code = method.getResponseCode();
    if (code >= 400) {
      CV_LOG(-4, "error, the server send %d respond code", static_cast<int>(code));
      return false;
    }
    if (code != 0 && code != 200 && code != 206) {
      wakeWaiters();
      if (out != nullptr) out->notifyStreamException(util::EVENT_STREAM_ERROR);
      CV_LOG(0, "http error %d", static_cast<int>(code));
      return false;
    }
  }
  // Only a 206 to a request with a range begins where it was asked to: a
  // request sent without one (an "hbbtv" location, a server that answered
  // 416) or a server that ignored it sends the content from its start.
  bodyStart = method.getResponseCode() == 206 && method.isRangeGet() ? requestStart : 0;
  return true;
}

bool HttpFileRequest::analyseFirstChunk(void* curl) {
  CV_LOG(0, "first time receive , get content length !!");
  long code = method.getResponseCode();
  CV_LOG(0, "response code: %d !!", static_cast<int>(code));
  long long length = -1;
  if (code == 200 || code == 206) {
    curl_off_t found = -1;
    curl_easy_getinfo(static_cast<CURL*>(curl), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &found);
    length = static_cast<long long>(found);
  }
  FirstAnswer answer = decideFirstAnswer(code, length, method);
  if (!answer.proceed) {
    if (answer.errorEvent) {
      wakeWaiters();
      if (out != nullptr) out->notifyStreamException(util::EVENT_STREAM_ERROR);
      CV_LOG(0, "http error %d", static_cast<int>(code));
    }
    return false;
  }
  contentSize.store(answer.size, std::memory_order_relaxed);
  seekable.store(answer.seekable, std::memory_order_relaxed);
  method.setSupportSeek(answer.seekable);
  headerChecked = true;
  wakeWaiters();
  if (out != nullptr) out->notifyStreamException(util::EVENT_STREAM_NORMAL);
  return true;
}

HttpFileRequest::FirstAnswer HttpFileRequest::decideFirstAnswer(long code, long long length,
                                                                MethodRequest& method) {
  FirstAnswer answer;
  if (code == 0) {
    takeUnknownSize(code, method, &answer);
  } else if (code != 200 && code != 206 && code < 400) {
    answer.proceed = false;
    answer.errorEvent = true;
  } else if (code >= 400) {
    CV_LOG(-4, "error, the server send %d respond code", static_cast<int>(code));
    answer.proceed = false;
  } else {
    long long size = length;
    CV_LOG(0, "contentSize:%lld", size);
    if ((size < kSmallContentSize && !method.checkFromContentLength()) || size <= 0) {
      CV_LOG(0, "got contentSize is too small:%lld", size);
      takeUnknownSize(code, method, &answer);
    } else if (code == 200) {
      answer.size = size;
      CV_LOG(0, "got http:200 double check if server still support seek");
      if (method.isRangeGet()) {
        CV_LOG(0, "contain range request, but server return 200, try check seek");
      } else {
        CV_LOG(0, "check seekable");
      }
      answer.seekable = method.seekAbleCheckFromResponse();
      CV_LOG(0, "double check seek:%d", answer.seekable ? 1 : 0);
    } else {
      // A 206 answer's length is that of the range asked for, which is the
      // whole size only for an open range from 0; the total of its
      // Content-Range is the size whenever the server gives one.
      long long total = method.getSizeFromResponseRange();
      answer.size = total > 0 ? total : size;
      answer.seekable = true;
    }
  }
  return answer;
}

void HttpFileRequest::takeUnknownSize(long code, MethodRequest& method, FirstAnswer* answer) {
  if (code == 206) {
    long long total = method.getSizeFromResponseRange();
    if (total == 0) {
      answer->seekable = false;
      answer->size = kUnknownContentSize;
      CV_LOG(0, "Can't get size from content-range, don't support seek");
    } else {
      answer->seekable = true;
      answer->size = total;
      CV_LOG(0, "new revise content size is:%lld", total);
    }
    return;
  }
  answer->seekable = false;
  answer->size = kUnknownContentSize;
  CV_LOG(0, "Can't get size from the network file");
}

bool HttpFileRequest::deliver(void* data, int size, int ver) {
  bool accepted;
  long long chunkStart = bodyStart + received;
  received += size;
  if (chunkStart >= from) {
    accepted = out->streamIn(data, static_cast<unsigned long>(size), ver);
    spinWhileStopWait(true);
  } else {
    // The answer began before `from` (at 0: a source that cannot seek, or a
    // request without a range): only the bytes from `from` on are what the
    // queue asked for.
    if (chunkStart + size <= from) return true;
    long long skip = from - chunkStart;
    accepted = out->streamIn(static_cast<char*>(data) + skip,
                             static_cast<unsigned long>(size - skip), ver);
    spinWhileStopWait(false);
  }
  return accepted;
}

void HttpFileRequest::spinWhileStopWait(bool logTheWait) {
  // The queue sets the stop-wait mark while it prepares a stop; the chunk
  // path holds still until method.stop() clears it, a millisecond's sleep
  // per turn and one line per wait. The wait is bounded: the queue may set
  // the mark and then decide not to restart (a start of its own is already
  // on its way), and that start needs this very thread, so an unbounded
  // wait would never end. A mark no stop followed within kStaleStopWaitMs is
  // dropped and the transfer goes on.
  if (!method.getStopWait()) return;
  if (logTheWait) CV_LOG(0, "wait stop flag");
  auto began = std::chrono::steady_clock::now();
  while (method.getStopWait()) {
    if (std::chrono::steady_clock::now() - began >= std::chrono::milliseconds(kStaleStopWaitMs)) {
      method.clearStopWait();
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void HttpFileRequest::forwardOption(HttpOption which, std::string const& value) {
  CV_LOG(0, kOptionLogLines[static_cast<int>(which)], value.c_str());
  std::string* kept = which == HttpOption::kUserAgent ? &userAgent
                      : which == HttpOption::kProxy   ? &proxy
                      : which == HttpOption::kCookie  ? &cookie
                                                      : nullptr;
  if (kept != nullptr) {
    util::SyncGuard guard(*this);
    *kept = value;
  }
  method.setOption(which, value);
}

void HttpFileRequest::setUserAgent(std::string const& v) {
  forwardOption(HttpOption::kUserAgent, v);
}
void HttpFileRequest::setProxy(std::string const& v) { forwardOption(HttpOption::kProxy, v); }
void HttpFileRequest::setCookie(std::string const& v) { forwardOption(HttpOption::kCookie, v); }
void HttpFileRequest::setCAPath(std::string const& v) { forwardOption(HttpOption::kCAPath, v); }
void HttpFileRequest::setCA(std::string const& v) { forwardOption(HttpOption::kCA, v); }
void HttpFileRequest::setClientAuthertication(std::string const& v) {
  forwardOption(HttpOption::kClientCert, v);
}
void HttpFileRequest::setPrivateKey(std::string const& v) {
  forwardOption(HttpOption::kPrivateKey, v);
}
void HttpFileRequest::setKeyType(std::string const& v) { forwardOption(HttpOption::kKeyType, v); }

void HttpFileRequest::setIpResolve(std::string const& value) {
  CV_LOG(0, "set ip resolve:%s", value.c_str());
  method.setIpResolve(value);
}

void HttpFileRequest::setSpeed(long long bytesPerSecond) {
  CV_LOG(0, "set speed:%lld", bytesPerSecond);
  method.setSpeed(bytesPerSecond);
}

void HttpFileRequest::setFeatureFlag(int flag) {
  CV_LOG(-4, "set feature flag:%d", flag);
  featureFlag.store(flag, std::memory_order_relaxed);
  method.setMethodFeatureFlag(flag);
}

int HttpFileRequest::getDownloadStatus() {
  int status = downloadStatus.load(std::memory_order_relaxed);
  CV_LOG(0, "download status:%d", status);
  return status;
}

}  // namespace webs
