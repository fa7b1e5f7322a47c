// webs::MethodRequest: one synchronous HTTP GET over a libcurl easy handle.
//
// Owned by its user (the HTTP file source, or a structured-response caller);
// hands the body to a webs::Requestor. executeGet() runs on the caller's
// thread and blocks for the whole transfer; libcurl's body, header, progress
// and open-socket callbacks run on that same thread.
//
// Other threads may call setBreak(), setStopWait() (atomic flag stores),
// stop() (blocks until a running transfer has ended), the option setters and
// the getters. The object's own lock (it is a util::Semaphore) guards
// `active`, `performing`, the stored options, the header block, the content
// type, the server name and the peer address; it is also the signal between
// stop() and the end of a transfer. libcurl is never called while it is held.
// Counters touched only by the transfer thread (stall-check times, interval
// figures) have no lock; those other threads read are atomics.
//
// libcurl result codes are translated here and nowhere else; callers see the
// numbers executeGet documents.
#ifndef CORVANE_HTTP_METHOD_REQUEST_H_
#define CORVANE_HTTP_METHOD_REQUEST_H_

#include <sys/time.h>

#include <atomic>
#include <string>

#include <curl/curl.h>

#include "http/http_options.h"
#include "http/limit_speed.h"
#include "http/method_param_station.h"
#include "http/moving_average.h"
#include "http/requestor.h"
#include "http/transfer_result.h"
#include "thread/semaphore.h"

namespace webs {

constexpr int kResultBroken = kTransferBroken;
constexpr int kResultStalled = kTransferStalled;
constexpr int kResultNotFound = 404;  // 200/206 with an empty body

// Stall limits in microseconds.
constexpr long kFirstByteLimitUs = 35000000;
constexpr long kBreakSilenceUs = 2000000;

class MethodRequest : public util::Semaphore {
 public:
  static constexpr int kHeaderCapacity = 8192;
  static constexpr long kBufferSize = 524288;

  MethodRequest();
  ~MethodRequest() override;

  // Stores the requestor and builds the easy handle with every option.
  void initialize(Requestor* requestor, std::string const& url);
  void setRequestor(Requestor* requestor);
  // (Re)creates the easy handle and sets the fixed options in their order.
  void InitCurl(char const* url);

  // Runs the GET on the calling thread. `to` 0 means an open end. Returns an
  // HTTP code >= 400, 404 for an empty 200/206, 0 on success, -1 after a
  // break, -2 after a stall, 42 after stop(), else the libcurl code.
  int executeGet(std::string const& url, long long from, long long to, int version);

  void setBreak();
  void setStopWait();
  bool getStopWait() const { return stopWait.load(std::memory_order_relaxed); }
  // Drops a stop-wait mark no stop() followed (see HttpFileRequest).
  void clearStopWait() { stopWait.store(false, std::memory_order_relaxed); }
  // Ends a running transfer at its next progress callback and waits for it.
  // Never from the transfer's own thread (a Requestor callback): it would
  // wait for itself.
  void stop();
  // Called by the owner when it decides to run the next executeGet: a stop()
  // from then on ends that transfer even when it arrives before the perform
  // has begun. Without it executeGet counts only stops from its own start.
  void armTransfer();

  void setMethodFeatureFlag(int flag);
  void setIpResolve(std::string const& type);
  void changeIptype(bool swap);
  int getIpType();
  bool isRangeGet() const { return rangeGet.load(std::memory_order_relaxed); }

  // Copies the peer address of the last connection, text and terminator
  // only, into `ip_buf` (16 bytes hold an IPv4 address, 46 any). 0 on
  // success, -1 for a null buffer.
  int getUrlIP(char* ip_buf);
  // The socket error (errno) of the last transfer.
  long getErrno() const { return osErrno.load(std::memory_order_relaxed); }

  void setUserAgent(std::string const& value);
  void setProxy(std::string const& value);
  void setCookie(std::string const& value);
  void setCAPath(std::string const& value);
  void setCA(std::string const& value);
  void setClientAuthertication(std::string const& value);
  void setPrivateKey(std::string const& value);
  void setKeyType(std::string const& value);
  // What each setter above does: keeps `value` for the next executeGet.
  void setOption(HttpOption which, std::string const& value);

  // Query parameters appended to the URL of every transfer (buildUrl).
  void pushParam(std::string const& name, std::string const& value);
  void clearParams();
  std::string buildParam2URL(std::string const& url);
  std::string buildUrl(std::string const& url);

  long long getFileSize() const { return fileSize.load(std::memory_order_relaxed); }
  // The response code of the running transfer (0 before a status line).
  // Only on the transfer's thread, e.g. inside Requestor::receive.
  long getResponseCode();
  // Counts the performs of this request (two for a transfer retried after a
  // 416); a receiver tells the first chunk of each answer by it. Transfer
  // thread only.
  unsigned performSerial() const { return performs; }

  // Header analysis (method_request_headers.cpp).
  int headerContentIn(void* data, unsigned long size, unsigned long count);
  bool checkFromContentLength();
  bool seekAbleCheckFromResponse();
  long long getSizeFromResponseRange();
  void setSupportSeek(bool support);
  bool getSupportSeek();
  std::string getServerName();
  std::string getContentType();
  int getResponseHeader(char* buffer, int size, int* length);

  // Speed (method_request_speed.cpp).
  bool showSpeed(int bytes);
  long long getSpeed();
  void setSpeed(long long bytesPerSecond);

  // libcurl callbacks; `request` is the MethodRequest.
  static size_t response(char* data, size_t size, size_t count, void* request);
  static size_t headerCallback(char* data, size_t size, size_t count, void* request);
  static int progressCallback(void* request, double dltotal, double dlnow, double ultotal,
                              double ulnow);
  static curl_socket_t SmartSocket(void* request, curlsocktype purpose,
                                   struct curl_sockaddr* address);

 private:
  // Body of one chunk: content type, stall re-arm, requestor, speed meters.
  int sendData(void* data, int length);
  // REQUIRES: lock held. Both stall checks; true to abort the transfer.
  bool progressCount(long now);
  bool timeoutCount(long now);
  // Sets the stored options and the IP family on the handle.
  void applyStoredOptions();
  void resetHeaders();
  static long nowMicros();

  Requestor* requestor = nullptr;
  std::atomic<bool> breakFlag{false};
  std::atomic<bool> stopWait{false};
  int ipType = CURL_IPRESOLVE_V4;   // guarded by the lock
  std::atomic<bool> rangeGet{false};
  bool rangeAllowed = true;         // transfer thread only
  std::atomic<int> featureFlag{-1};
  int active = 0;                   // guarded by the lock
  bool performing = false;          // guarded by the lock: a perform is under way
  // Guarded by the lock: every stop() counts one; a transfer ends as stopped
  // when the count moved since it was armed (or, unarmed, since it began).
  unsigned long stopCount = 0;
  unsigned long armedStopCount = 0;
  bool armed = false;
  long stallLimitSeconds = 35;      // transfer thread only
  unsigned performs = 0;            // transfer thread only
  CURL* curl = nullptr;
  // Stall-check times in microseconds; transfer thread only.
  long lifeCount = -1;
  long timeoutNum = 0;
  long lastDataTime = 0;
  struct curl_slist* aliases = nullptr;
  int version = 0;                  // transfer thread only

  LimitSpeed limiter;
  MovingAverage movingAverage{10};
  struct timeval intervalStart {};   // transfer thread only
  long long intervalBytes = 0;       // transfer thread only
  std::atomic<long long> smoothedSpeed{0};
  std::atomic<long long> maxSpeedSetting{0};
  std::atomic<long long> curlSpeed{0};  // libcurl's mean rate, last read by the transfer thread
  std::atomic<long long> fileSize{0};
  std::atomic<long> osErrno{0};

  // Guarded by the lock.
  char headerBuffer[kHeaderCapacity];
  int headerLength = 0;
  bool supportSeek = false;
  std::string serverName;
  std::string contentType;
  std::string peerAddress;
  HttpOptions options;

  MethodParam* params = nullptr;  // owner thread only (set up before transfers)
  MethodParam* lastParam = nullptr;
};

}  // namespace webs

// Kept for clients that linked against it: always 0.
long long getSpeed();

#endif  // CORVANE_HTTP_METHOD_REQUEST_H_
