// An in-process HTTP/1.1 server for tests, scripted per path.
//
// Listens on 127.0.0.1 (or [::1]) on an ephemeral port, answers one request
// per connection ("Connection: close") on a thread of its own and records
// every request. Content is the pattern (support.h) unless given, so every
// byte a client gets can be checked at its offset. Faults are switches of
// the script: ranges ignored or refused, missing lengths, any status line,
// drops after N bytes, stalls, a silent start, another script for later
// connections. The destructor stops the server and joins every thread
// (stalls end at once).
#ifndef CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_
#define CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/support.h"

namespace testsupport {

std::string lowerCase(std::string s);

// What one path answers.
struct Script {
  explicit Script(long long total = 1 << 20, bool ranges = true, std::vector<long long> drops = {})
      : size(total), honourRange(ranges), dropPlan(std::move(drops)) {}
  long long size;                   // pattern bytes of the resource
  int status = 0;                   // 0: 200/206 with content; else this status with `body`
  std::string body;
  std::string location;             // Location header (redirects)
  bool honourRange;                 // false: 200 with the whole content
  int rangeStatus = 0;              // e.g. 416: the answer to any request with a Range
  bool contentLength = true;        // false: the body ends where the connection closes
  bool unknownTotal = false;        // Content-Range total "*" (and no Content-Length)
  std::string statusLine;           // replaces "HTTP/1.1 <code> <reason>"
  std::vector<std::string> extraHeaders;  // whole lines without CR LF
  // Per connection, in order: body bytes before the connection is closed
  // (-1: none). Connections past the list do as the last entry says.
  std::vector<long long> dropPlan;
  long long stallAfter = -1;        // after N body bytes, send nothing for...
  int stallMs = 0;                  // ...this long, then go on...
  int stallTimes = -1;              // ...on the first K connections (-1: all)
  int headerDelayMs = 0;            // silence before the status line
  std::shared_ptr<const Script> after;  // for the connections after the first
  std::shared_ptr<const std::string> content;  // replaces the pattern; sets size
};

struct RecordedRequest {
  std::string target;  // as sent: origin-form path or absolute-form URL
  std::map<std::string, std::string> headers;  // the first of each name, in lower case
  // The value of the header `name` (any case), or "".
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const { return headers.count(lowerCase(name)) > 0; }
};

class ScriptedHttpServer {
 public:
  explicit ScriptedHttpServer(Script defaultScript = Script(), bool ipv6 = false);
  ~ScriptedHttpServer();
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path = "/file") const;
  // The script of `path` (query stripped); its connection count restarts.
  void route(const std::string& path, const Script& script);

  std::vector<RecordedRequest> requests() const;
  int requestCount() const { return static_cast<int>(requests().size()); }
  long long bytesSent() const { return bytesSent_.load(); }
  // The start offsets of the "Range: bytes=N-" requests for `path`, in
  // order (-1 for a request without a range).
  std::vector<long long> rangeStarts(const std::string& path = "/file") const;

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void acceptLoop();
  void serve(int fd);
  bool pause(int ms);  // false when the server is stopping

  bool ipv6_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<long long> bytesSent_{0};
  std::thread acceptThread_;

  mutable std::mutex mutex_;  // everything below
  std::condition_variable stopCond_;
  Script default_;
  std::map<std::string, Script> routes_;
  std::map<std::string, int> servedPerPath_;
  std::vector<RecordedRequest> requests_;
  std::vector<Worker> workers_;
  std::vector<int> openFds_;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_
