// webs::HttpFileRequest: the producer of an "http://" or "https://" location.
//
// Owned by a DullFile (made by FileRequestAdaptor). Each startStreaming runs
// one MethodRequest::executeGet synchronously on the calling thread (the
// queue's feeding worker); libcurl hands every body chunk to receive() on that
// thread. The first chunk of the object's life fixes the size and whether the
// source can start at any offset; every chunk is pushed into the queue's sink
// and the end of the transfer becomes one stream event and, for failures, a
// download status.
//
// Other threads call stopStreaming/release (the queue, the closing thread),
// setBreak/setStopWait (the queue's monitor), the option setters and the
// getters (the C interface). The object's own lock (its Semaphore base)
// guards `finished` and the kept option texts, and is the end-of-transfer
// signal stopStreaming waits on. Fields read without that lock (`running`,
// the size, seekability, download status, feature flag) are atomics; `from`,
// `count`, `version`, `received` and `headerChecked` belong to the transfer
// thread. Neither the sink nor libcurl is ever called with the lock held.
#ifndef CORVANE_SOURCE_HTTP_FILE_REQUEST_H_
#define CORVANE_SOURCE_HTTP_FILE_REQUEST_H_

#include <atomic>
#include <string>

#include "http/method_request.h"
#include "http/requestor.h"
#include "source/file_request.h"
#include "thread/semaphore.h"

namespace webs {

// Download statuses besides an HTTP status of 400 or more.
enum DownloadStatus_E {
  DOWNLOAD_TIMEOUT = -2,
  DOWNLOAD_NOT_REVEIVE_DATA = -3,
  DOWNLOAD_DISCONNECTED = -5,
  DOWNLOAD_DNS_UNABLE_RESOLVED = -6,
  DOWNLOAD_CONNECT_FAIL = -7,
  DOWNLOAD_CONNECT_REJECT = -8,
};

// The size reported when the server gives none.
constexpr long long kUnknownContentSize = 0x0FFFFFFFFFFFFFFFLL;
// Shorter bodies must come with a Content-Length header to be trusted.
constexpr long long kSmallContentSize = 1048576;
// How long a stop-wait mark may hold the transfer without a stop following.
constexpr int kStaleStopWaitMs = 2000;
// The feature flag value of the broadcaster whose failures are retried.
constexpr int kFeatureFlagGJZ = 1;

class HttpFileRequest : public FileRequest, public Requestor, public util::Semaphore {
 public:
  explicit HttpFileRequest(std::string const& location);
  ~HttpFileRequest() override;

  // FileRequest.
  bool initialize() override;
  // Blocks for the whole transfer; -1 without a sink, else 0 once it ended.
  int startStreaming(int version, long long from, long long count) override;
  // Ends a running transfer and waits for its end event. Never from the
  // transfer's own thread.
  int stopStreaming() override;
  void release() override;
  bool isRandomAccess() override { return seekable.load(std::memory_order_relaxed); }
  long long getContentSize() override { return contentSize.load(std::memory_order_relaxed); }
  int getRequestType() override { return 1; }
  void setBreak() override;
  bool getStopWait() override { return method.getStopWait(); }
  void setStopWait() override { method.setStopWait(); }

  // Requestor: on the transfer's thread. Returns `size` to go on, 0 to end.
  int receive(void* data, int size, void* curl, int version) override;
  void readyReceive() override {}
  void finishReceive() override {}

  // HTTP options and information, from any thread.
  void setUserAgent(std::string const& value);
  void setProxy(std::string const& value);
  void setCookie(std::string const& value);
  void setCAPath(std::string const& value);
  void setCA(std::string const& value);
  void setClientAuthertication(std::string const& value);
  void setPrivateKey(std::string const& value);
  void setKeyType(std::string const& value);
  void setIpResolve(std::string const& value);
  void setSpeed(long long bytesPerSecond);
  void setFeatureFlag(int flag);
  int getDownloadStatus();
  long long getSpeed() { return method.getSpeed(); }
  std::string getContentType() { return method.getContentType(); }
  std::string getServerName() { return method.getServerName(); }
  int getUrlIP(char* ip) { return method.getUrlIP(ip); }
  int getResponseHeader(char* buffer, int size, int* length) {
    return method.getResponseHeader(buffer, size, length);
  }

  // What the first answer of a transfer says about the source.
  struct FirstAnswer {
    bool proceed = true;      // false: the transfer ends at once (an error answer)
    bool errorEvent = false;  // with proceed false: the answer is reported as a stream error
    long long size = 0;
    bool seekable = false;
  };
  // The first-chunk decision from the response code, the Content-Length
  // libcurl found (-1 for none) and `method`'s analysis of the header block.
  // Uses no state of a request, so header blocks alone can exercise it (the
  // header fuzzer does).
  static FirstAnswer decideFirstAnswer(long code, long long length, MethodRequest& method);

 private:
  // One transfer from `from`, then its end event.
  void sendRequest();
  // Size and seekability from the first answer. False when the transfer
  // must end at once (an error answer).
  bool analyseFirstChunk(void* curl);
  // The size once the Content-Length of a 200/206 answer was found unusable.
  static void takeUnknownSize(long code, MethodRequest& method, FirstAnswer* answer);
  // The first chunk of every answer, the first of the source's life
  // included: false when the answer is an error whose body must not reach
  // the sink. Notes where the answer's body starts.
  bool checkAnswer(void* curl);
  // Pushes one chunk into the sink; false when the sink refused it.
  bool deliver(void* data, int size, int version);
  // The event and download status for a result of executeGet.
  int eventForResult(int result);
  void spinWhileStopWait(bool logTheWait);
  void wakeWaiters();
  // The common path of the string option setters: logs `value` with the
  // setter's line, keeps it when the setter keeps a copy, forwards it to
  // `method`.
  void forwardOption(HttpOption which, std::string const& value);

  std::string userAgent, proxy, cookie;  // guarded by the lock
  MethodRequest method;
  long long received = 0;
  std::atomic<long long> contentSize{0};
  std::atomic<bool> seekable{false};
  long long count = 0;
  long long from = 0;
  long long requestStart = 0;   // offset the current transfer asked for
  long long bodyStart = 0;      // offset of the first byte of the current answer
  unsigned checkedPerform = 0;  // method.performSerial() of the last answer checked
  bool headerChecked = false;
  int version = 0;
  std::atomic<bool> running{false};
  bool finished = true;  // guarded by the lock
  std::atomic<int> downloadStatus{0};
  std::atomic<int> featureFlag{-1};
};

}  // namespace webs

#endif  // CORVANE_SOURCE_HTTP_FILE_REQUEST_H_
