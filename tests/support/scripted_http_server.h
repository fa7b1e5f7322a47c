// An in-process HTTP/1.1 server for tests, scripted per path.
//
// Listens on 127.0.0.1 (or [::1]) on an ephemeral port, serves one request
// per connection (answers carry "Connection: close") on its own thread, and
// records every request it read. Content is the pattern of patternByte(),
// so every byte a client gets can be checked at its offset. Faults are
// scripted: ignored ranges, missing lengths, odd header spellings, any
// status, redirects, drops after N bytes, stalls, trickling, an "ICY"
// status line, an over-long header block. The destructor stops the server
// and joins every thread (stalls end at once).
#ifndef CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_
#define CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testsupport {

// The content byte at `offset` of every pattern resource (not periodic at
// any small power of two, so a wrong offset shows).
inline uint8_t patternByte(long long offset) {
  return static_cast<uint8_t>((offset * 7) ^ (offset >> 8) * 13 ^ (offset >> 16) * 31);
}
void fillPattern(char* out, long long offset, long long count);
// Index of the first byte of `data` that differs from the pattern at
// `offset`, or -1 when all match.
long long firstPatternMismatch(const char* data, long long offset, long long count);

enum class HeaderCase { Canonical, Lower, Upper };

// What one path answers.
struct Script {
  long long size = 1 << 20;         // pattern bytes of the resource
  int status = 0;                   // 0: 200/206 with content; else this status with `body`
  std::string body;                 // body of a non-content status
  std::string location;             // Location header (for redirects)
  bool honourRange = true;          // false: 200 with the whole content
  int rangeStatus = 0;              // e.g. 416: the answer to any request with a Range
  bool contentLength = true;        // send Content-Length
  bool chunked = false;             // chunked transfer encoding (no Content-Length)
  bool unknownTotal = false;        // Content-Range total "*" (and no Content-Length)
  bool contentRangeOn200 = false;   // send Content-Range even with a 200
  bool acceptRanges = true;         // send "Accept-Ranges: bytes" when honouring ranges
  HeaderCase headerCase = HeaderCase::Canonical;
  std::string statusLine;           // replaces "HTTP/1.1 <code> <reason>" (e.g. "ICY 200 OK")
  std::string serverHeader;         // value of a Server header, sent as given
  std::vector<std::string> extraHeaders;  // whole lines without CR LF
  int longHeaderBytes = 0;          // pad the block with X-Pad lines to about this many bytes
  long long dropAfter = -1;         // close the connection after N body bytes...
  int dropTimes = -1;               // ...on the first K connections (-1: every time)
  // Per connection, in order: body bytes before the close (-1: no drop).
  // Connections past the list drop as the last entry says. Overrides
  // dropAfter when not empty.
  std::vector<long long> dropPlan;
  long long stallAfter = -1;        // after N body bytes, send nothing for...
  int stallMs = 0;                  // ...this long (then go on)
  int stallTimes = -1;              // on the first K connections (-1: every time)
  int trickleBytes = 0;             // send this many bytes...
  int trickleMs = 0;                // ...then pause this long
  int headerDelayMs = 0;            // wait before the status line
  // When set, connections from the `afterConnections`-th on (counted from
  // 0) are answered by this script instead.
  std::shared_ptr<const Script> after;
  int afterConnections = 1;
  // When set, these bytes are the content instead of the pattern (a real
  // media file, say) and `size` is taken from them.
  std::shared_ptr<const std::string> content;
};

struct RecordedRequest {
  std::string requestLine;
  std::string method;
  std::string target;  // as sent: origin-form path or absolute-form URL
  std::vector<std::pair<std::string, std::string>> headers;
  // Value of the first header named `name` (case-insensitive), or "".
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

class ScriptedHttpServer {
 public:
  // Starts listening at once; `ipv6` selects [::1].
  explicit ScriptedHttpServer(Script defaultScript = Script(), bool ipv6 = false);
  ~ScriptedHttpServer();
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  bool ok() const { return listenFd_ >= 0; }
  int port() const { return port_; }
  // "http://127.0.0.1:<port><path>" (or "[::1]").
  std::string url(const std::string& path = "/file") const;
  // The script for requests whose path (query stripped) is `path`. The
  // per-connection counts of dropTimes and stallTimes start afresh with it,
  // so a script switched in at run time drops or stalls its own first K.
  void route(const std::string& path, const Script& script);

  std::vector<RecordedRequest> requests() const;
  int requestCount() const;
  int connectionCount() const { return connections_.load(); }
  // Body bytes written in total.
  long long bytesSent() const { return bytesSent_.load(); }

 private:
  void acceptLoop();
  void serve(int fd);
  // Joins the workers that have finished serving (a long run would otherwise
  // keep one ended thread per connection). REQUIRES: mutex_ held.
  void reapFinishedWorkers();
  Script scriptFor(const std::string& target, int* connectionIndex);
  bool sendAll(int fd, const char* data, size_t size);
  // Sleeps up to `ms`; false when the server is stopping.
  bool pause(int ms);

  bool ipv6_;
  int listenFd_ = -1;
  int port_ = 0;
  int wakePipe_[2] = {-1, -1};
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::atomic<long long> bytesSent_{0};
  std::thread acceptThread_;

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable stopCond_;
  Script default_;
  std::map<std::string, Script> routes_;
  std::map<std::string, int> servedPerPath_;
  std::vector<RecordedRequest> requests_;
  std::vector<std::thread> workers_;
  std::vector<std::thread::id> finishedWorkers_;  // served, not yet joined
  std::vector<int> openFds_;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_SCRIPTED_HTTP_SERVER_H_
