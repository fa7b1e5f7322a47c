// Fault soak: for a given time, several threads open, seek, read (blocking
// and asynchronous), cancel and close handles of the public C interface on
// the in-process scripted HTTP server, while another thread switches each
// path between normal answers, answers that ignore ranges, connections
// dropped after N bytes, short stalls and 5xx answers. Every byte read is
// checked against the pattern at the offset it came from.
//
// The run fails on a wrong byte, a call that takes longer than the bound
// below, an asynchronous read reported other than once (or twice with
// status 3 when withdrawn while queued), or a call that never returns (the
// watchdog then ends the process). Result codes are counted, not judged:
// under these faults the legitimate ones are -1 (stream finished), -4 (read
// broken or failed at the end), -6 (timed out), -12 (seek refused on a
// stream that ignores ranges), -13 (end), -17 (refused service, or a
// source the feeding monitor gave up on) and -21 (not found).
//
//   fault_soak [SECONDS] [--seed N] [--no-range-paths N]
#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "corvane/smart_file.h"
#include "soak/soak_stats.h"
#include "support/scripted_http_server.h"

namespace {

using testsupport::firstPatternMismatch;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

constexpr int kThreads = 4;
constexpr int kHandlesPerThread = 2;
constexpr int kPaths = 6;
int noRangePaths = 2;  // the last paths always ignore ranges (--no-range-paths N)
constexpr int kMaxSharers = 2;    // handles open at once on one path
constexpr long long kUnknownSize = 0x0FFFFFFFFFFFFFFFLL;

// The longest any call may take. With feature flag 1 a transfer gives up
// after 4 s without data; the feeding monitor restarts a source that leaves
// a reader waiting for 0.4 s and ends it after three silent restarts; the
// scripts stall at most 3.5 s on at most 2 connections after each switch and
// drop at most 3 connections. One read therefore waits at most for two
// stalls, a few reconnections and, on a source without ranges, the transfer
// from offset 0 to its position (12 MiB at most on loopback): well under
// 15 s. A read may first wait for the one other handle reading the same
// file (reads of a file are serialised): twice that. The bound stays below
// the 35-s first-byte limit, so a read that only that limit ends counts as
// a hang rather than passing unnoticed.
constexpr long long kBoundMs = 30000;
// A call still running this long will not return: report and end.
constexpr long long kWatchdogMs = 90000;

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// How a path tells (or hides) its length.
enum class Length { Told, None, Chunked, TotalUnknown };

struct PathState {
  std::string path;
  long long size = 0;
  bool noRange = false;
  Length length = Length::Told;
  int openHandles = 0;  // World::mutex
  std::string behaviour = "normal";
};

// A path's answers as it was set up: ranges or not, and how its length
// shows. Without a known total the source cannot be read at random.
Script baseScript(const PathState& p) {
  Script s;
  s.size = p.size;
  s.honourRange = !p.noRange;
  s.contentLength = p.length == Length::Told;
  s.chunked = p.length == Length::Chunked;
  s.unknownTotal = p.length == Length::TotalUnknown;
  return s;
}

bool seekable(const PathState& p) { return !p.noRange && p.length != Length::TotalUnknown; }

// One asynchronous read. Kept until the end of the run: a second report
// (cancelled while queued) may come after the first, and only the buffer is
// released once the read is over.
struct AsyncOp {
  std::mutex mutex;
  std::condition_variable reported;
  int reports = 0;  // guarded by mutex, like the fields below
  int status = 0;
  int bytes = 0;
  int secondStatus = 0;
  long long doneMs = 0;
  std::vector<char> buf;
  long long origin = 0;
  long long startMs = 0;
  int reqID = 0;
  int path = -1;
};

void onAsyncReport(int reqID, void* userdata, int status, int bytes) {
  auto* op = static_cast<AsyncOp*>(userdata);
  std::lock_guard<std::mutex> lock(op->mutex);
  op->reports++;
  if (op->reports == 1) {
    op->status = status;
    op->bytes = bytes;
    op->doneMs = nowMs();
  } else {
    op->secondStatus = status;
  }
  op->reported.notify_all();
}

// Everything the threads share.
struct World {
  explicit World(unsigned seed) : server(Script()), seed(seed) {}
  ScriptedHttpServer server;
  soak::SoakStats stats;
  unsigned seed;
  std::mutex mutex;  // guards the paths' openHandles and behaviour
  PathState paths[kPaths];
  std::atomic<bool> stopping{false};
  // Per thread: when its current call began (0: none) and what it is.
  std::atomic<long long> callStart[kThreads + 1] = {};
  std::atomic<const char*> callName[kThreads + 1] = {};
  std::mutex contextMutex;  // guards callContext
  std::string callContext[kThreads + 1];
};

// Times one call of a thread: counted, watched, and held to the bound.
class CallTimer {
 public:
  CallTimer(World& w, int slot, const char* name, std::string context)
      : w_(w), slot_(slot), name_(name), context_(std::move(context)), start_(nowMs()) {
    w_.callName[slot_] = name_;
    {
      std::lock_guard<std::mutex> lock(w_.contextMutex);
      w_.callContext[slot_] = context_;
    }
    w_.callStart[slot_] = start_;
    w_.stats.op(name_);
  }
  ~CallTimer() {
    long long ms = nowMs() - start_;
    w_.callStart[slot_] = 0;
    w_.stats.duration(name_, ms, context_);
    if (ms > kBoundMs) {
      w_.stats.fault("hang", std::string(name_) + " took " + std::to_string(ms) + " ms (" +
                                 context_ + ")");
    }
  }

 private:
  World& w_;
  int slot_;
  const char* name_;
  std::string context_;
  long long start_;
};

std::string behaviourOf(World& w, int path) {
  std::lock_guard<std::mutex> lock(w.mutex);
  return w.paths[path].behaviour;
}

void checkBytes(World& w, const char* buf, long long origin, long long n, int path,
                const char* what) {
  if (n <= 0) return;
  const PathState& p = w.paths[path];
  if (origin < 0 || origin + n > p.size) {
    w.stats.fault("wrong bytes", std::string(what) + " got " + std::to_string(n) + " bytes at " +
                                     std::to_string(origin) + " outside " + p.path + " of " +
                                     std::to_string(p.size));
    return;
  }
  long long bad = firstPatternMismatch(buf, origin, n);
  if (bad >= 0) {
    w.stats.fault("wrong bytes", std::string(what) + " " + p.path + " byte " +
                                     std::to_string(origin + bad) + " of a read of " +
                                     std::to_string(n) + " at " + std::to_string(origin) +
                                     " (behaviour " + behaviourOf(w, path) + ")");
    return;
  }
  w.stats.verified(n);
}

class Worker {
 public:
  Worker(World& w, int index) : w_(w), slot_(index), rng_(w.seed * 7919u + index) {}

  void run() {
    while (!w_.stopping) step();
    for (auto& h : handles_) {
      if (h.id > 0) closeHandle(h);
    }
  }

 private:
  struct Handle {
    int id = -1;
    int path = -1;
    AsyncOp* pending = nullptr;
  };

  int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }
  bool chance(int percent) { return pick(100) < percent; }
  std::string ctx(const Handle& h) {
    const PathState& p = w_.paths[h.path];
    return p.path + (p.noRange ? " no-range" : "") + (p.length != Length::Told ? " no-length" : "") +
           ", " + behaviourOf(w_, h.path);
  }

  void step() {
    Handle& h = handles_[static_cast<size_t>(pick(kHandlesPerThread))];
    if (h.id <= 0) {
      openHandle(h);
      return;
    }
    if (h.pending != nullptr) {
      int r = pick(100);
      if (r < 55) {
        finishAsync(h, false);
      } else if (r < 85) {
        finishAsync(h, true);
      } else {
        closeHandle(h);
      }
      return;
    }
    int r = pick(100);
    if (r < 38) {
      syncRead(h);
    } else if (r < 58) {
      startAsync(h);
    } else if (r < 86) {
      seek(h);
    } else if (r < 91) {
      querySize(h);
    } else {
      closeHandle(h);
    }
  }

  void openHandle(Handle& h) {
    int path = -1;
    {
      std::lock_guard<std::mutex> lock(w_.mutex);
      int first = pick(kPaths);
      for (int i = 0; i < kPaths && path < 0; ++i) {
        int candidate = (first + i) % kPaths;
        if (w_.paths[candidate].openHandles < kMaxSharers) path = candidate;
      }
      if (path < 0) return;
      w_.paths[path].openHandles++;
    }
    std::string url = w_.server.url(w_.paths[path].path);
    int id = -1;
    int r;
    {
      CallTimer t(w_, slot_, "open", url);
      if (chance(30)) {
        static const int kSizes[] = {65536, 262144, 1 << 20, 3 << 20};
        r = x_smart_file_open_x(url.c_str(), &id, kSizes[pick(4)]);
      } else {
        r = x_smart_file_open(url.c_str(), &id);
      }
    }
    if (r != SMFR_OK || id <= 0) {
      w_.stats.fault("open", "open of " + url + " gave " + std::to_string(r));
      std::lock_guard<std::mutex> lock(w_.mutex);
      w_.paths[path].openHandles--;
      return;
    }
    // The short timings: a silent transfer ends after 4 s, not 35 s.
    x_smart_file_set_featureflag(id, 1);
    h.id = id;
    h.path = path;
  }

  void closeHandle(Handle& h) {
    int r;
    {
      CallTimer t(w_, slot_, "close", ctx(h));
      r = x_smart_file_close(h.id);
    }
    if (r != SMFR_OK) w_.stats.fault("close", "close gave " + std::to_string(r));
    if (h.pending != nullptr) awaitAsync(h, "after close");
    {
      std::lock_guard<std::mutex> lock(w_.mutex);
      w_.paths[h.path].openHandles--;
    }
    h.id = -1;
    h.path = -1;
  }

  int readSize() {
    int r = pick(100);
    if (r < 30) return 1 + pick(4096);
    if (r < 80) return 4096 + pick(65536 - 4096);
    return 65536 + pick(262144 - 65536);
  }

  // A failure that leaves the stream finished: the file behind the handle
  // is of no more use, so the handle goes (its file with the last handle).
  void afterFailure(Handle& h, int code) {
    if (code == SMFR_NOT_HTTP || code == SMFR_TIMEOUT || code == SMFR_NOT_AVAILABLE ||
        code == SMFR_NOT_FOUND || chance(30)) {
      closeHandle(h);
    }
  }

  void syncRead(Handle& h) {
    int size = readSize();
    std::vector<char> buf(static_cast<size_t>(size));
    unsigned long got = 0;
    int r;
    {
      CallTimer t(w_, slot_, "read", ctx(h) + ", " + std::to_string(size) + " bytes");
      r = x_smart_file_read(h.id, buf.data(), size, &got);
    }
    long long after = x_smart_file_offset(h.id);
    const PathState& p = w_.paths[h.path];
    if (got > static_cast<unsigned long>(size)) {
      w_.stats.fault("wrong bytes", "read of " + std::to_string(size) + " got " +
                                        std::to_string(got));
      return;
    }
    // The position moved by what was read (after a jump on a live stream,
    // which it also reflects), so the bytes came from just before it.
    bool advanced = r == SMFR_OK || r == SMFR_EOF;
    long long origin = after - (advanced ? static_cast<long long>(got) : 0);
    checkBytes(w_, buf.data(), origin, static_cast<long long>(got), h.path, "read");
    if (r == SMFR_EOF && origin + static_cast<long long>(got) < p.size) {
      w_.stats.anomaly("early-eof", p.path + " read ended at " +
                                        std::to_string(origin + static_cast<long long>(got)) +
                                        " of " + std::to_string(p.size) + " (" + behaviourOf(w_, h.path) + ")");
    }
    if (!advanced) {
      w_.stats.result("read", r);
      afterFailure(h, r);
    } else if (r == SMFR_EOF) {
      w_.stats.result("read", r);
      seekTo(h, pick(2) == 0 ? 0 : static_cast<long long>(rng_() % static_cast<unsigned long long>(p.size)));
    }
  }

  void startAsync(Handle& h) {
    auto op = std::make_unique<AsyncOp>();
    op->buf.resize(static_cast<size_t>(readSize()));
    op->origin = x_smart_file_offset(h.id);
    op->path = h.path;
    op->startMs = nowMs();
    int reqID = 0;
    int r;
    {
      CallTimer t(w_, slot_, "read_async", ctx(h));
      r = x_smart_file_read_async(h.id, op->buf.data(), static_cast<int>(op->buf.size()),
                                  onAsyncReport, op.get(), &reqID);
    }
    if (r != SMFR_OK) {
      w_.stats.result("read_async", r);
      return;
    }
    op->reqID = reqID;
    h.pending = op.get();
    ops_.push_back(std::move(op));
  }

  void finishAsync(Handle& h, bool cancel) {
    if (cancel) {
      CallTimer t(w_, slot_, "cancel", ctx(h));
      int r = x_smart_file_read_abort(h.id, h.pending->reqID);
      if (r != SMFR_OK) w_.stats.result("cancel", r);
    }
    awaitAsync(h, cancel ? "after cancel" : "wait");
  }

  // Waits for the pending read's report, checks its bytes, frees its buffer.
  void awaitAsync(Handle& h, const char* why) {
    AsyncOp* op = h.pending;
    h.pending = nullptr;
    int status;
    int bytes;
    long long doneMs;
    {
      CallTimer t(w_, slot_, "async_wait", ctx(h) + ", " + why);
      std::unique_lock<std::mutex> lock(op->mutex);
      while (op->reports == 0) {
        if (op->reported.wait_for(lock, std::chrono::seconds(1)) == std::cv_status::timeout &&
            nowMs() - op->startMs > kWatchdogMs) {
          w_.stats.fault("hang", "asynchronous read never reported");
          return;  // the buffer stays: the read may still write it
        }
      }
      status = op->status;
      bytes = op->bytes;
      doneMs = op->doneMs;
    }
    long long latency = doneMs - op->startMs;
    w_.stats.duration("async read", latency, w_.paths[op->path].path);
    if (latency > kBoundMs) {
      w_.stats.fault("hang", "asynchronous read reported after " + std::to_string(latency) + " ms");
    }
    if (bytes < 0 || bytes > static_cast<int>(op->buf.size())) {
      w_.stats.fault("wrong bytes", "asynchronous read of " + std::to_string(op->buf.size()) +
                                        " reported " + std::to_string(bytes));
    } else {
      checkBytes(w_, op->buf.data(), op->origin, bytes, op->path, "async read");
    }
    const PathState& p = w_.paths[op->path];
    if (status == SMFR_ASYNC_EOF && op->origin + bytes < p.size) {
      w_.stats.anomaly("early-eof", p.path + " async read ended at " +
                                        std::to_string(op->origin + bytes) + " of " +
                                        std::to_string(p.size));
    }
    if (status != SMFR_ASYNC_DONE) w_.stats.result("async status", status);
    std::vector<char>().swap(op->buf);
    if (status == SMFR_ASYNC_FAILED && h.id > 0 && std::strcmp(why, "after close") != 0) {
      afterFailure(h, SMFR_FAILED);
    }
  }

  void seekTo(Handle& h, long long target) {
    long long cur = -99;
    int r;
    {
      CallTimer t(w_, slot_, "seek", ctx(h) + ", to " + std::to_string(target));
      r = x_smart_file_seek(h.id, target, &cur);
    }
    const PathState& p = w_.paths[h.path];
    if (r == SMFR_OK) {
      long long pos = x_smart_file_offset(h.id);
      if (pos != cur || cur != std::min(target, p.size)) {
        w_.stats.anomaly("seek-position", p.path + " seek to " + std::to_string(target) +
                                              " gave " + std::to_string(cur) + ", position " +
                                              std::to_string(pos));
      }
      return;
    }
    w_.stats.result("seek", r);
    if (r == SMFR_BUSY && seekable(p)) {
      w_.stats.anomaly("busy-on-seekable", p.path + " seek to " + std::to_string(target));
    }
    if (r != SMFR_BUSY) afterFailure(h, r);
  }

  void seek(Handle& h) {
    const PathState& p = w_.paths[h.path];
    long long pos = x_smart_file_offset(h.id);
    long long target;
    int r = pick(100);
    if (r < 45) {
      target = std::max(0LL, pos + static_cast<long long>(pick(400000)) - 200000);
    } else if (r < 85) {
      target = static_cast<long long>(rng_() % static_cast<unsigned long long>(p.size));
    } else if (r < 93) {
      target = p.size - pick(100000);
    } else {
      target = p.size + pick(100000);
    }
    seekTo(h, std::max(0LL, target));
  }

  void querySize(Handle& h) {
    long long size;
    {
      CallTimer t(w_, slot_, "size", ctx(h));
      size = x_smart_file_size(h.id);
    }
    const PathState& p = w_.paths[h.path];
    if (size <= 0) {
      w_.stats.result("size", static_cast<int>(size));
    } else if (size != p.size && size != kUnknownSize) {
      w_.stats.anomaly("size", p.path + " size " + std::to_string(size) + " for " +
                                   std::to_string(p.size) + " (" + behaviourOf(w_, h.path) + ")");
    }
  }

  World& w_;
  int slot_;
  std::mt19937_64 rng_;
  Handle handles_[kHandlesPerThread];

 public:
  std::deque<std::unique_ptr<AsyncOp>> ops_;
};

// Switches a random path to a random behaviour every 0.5 to 2 s.
void switchBehaviours(World& w) {
  std::mt19937_64 rng(w.seed * 31u + 5u);
  auto pick = [&rng](long long n) { return static_cast<long long>(rng() % static_cast<unsigned long long>(n)); };
  while (!w.stopping) {
    long long until = nowMs() + 500 + pick(1500);
    while (!w.stopping && nowMs() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    int i = static_cast<int>(pick(kPaths));
    PathState& p = w.paths[i];
    Script s = baseScript(p);
    std::string name;
    long long r = pick(100);
    if (r < 40) {
      name = "normal";
    } else if (r < 65) {
      s.dropAfter = pick(2 << 20);
      s.dropTimes = 1 + static_cast<int>(pick(3));
      name = "drop-after-" + std::to_string(s.dropAfter);
    } else if (r < 88) {
      s.stallAfter = pick(1 << 20);
      s.stallMs = 1000 + static_cast<int>(pick(2500));
      s.stallTimes = 1 + static_cast<int>(pick(2));
      name = "stall-" + std::to_string(s.stallMs) + "ms-after-" + std::to_string(s.stallAfter);
    } else {
      s.status = pick(2) == 0 ? 500 : 503;
      s.body = "busy";
      name = std::to_string(s.status);
    }
    {
      std::lock_guard<std::mutex> lock(w.mutex);
      p.behaviour = name;
    }
    w.server.route(p.path, s);
    w.stats.op("switch");
  }
}

// Ends the process when a call has not returned long after the bound.
void watch(World& w, std::atomic<bool>& done) {
  while (!done) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (int i = 0; i <= kThreads; ++i) {
      long long start = w.callStart[i];
      if (start != 0 && nowMs() - start > kWatchdogMs) {
        const char* name = w.callName[i];
        std::string context;
        {
          std::lock_guard<std::mutex> lock(w.contextMutex);
          context = w.callContext[i];
        }
        std::fprintf(stderr,
                     "soak FAULT hang: %s (%s) of thread %d running for %lld ms; giving up\n",
                     name != nullptr ? name : "?", context.c_str(), i, nowMs() - start);
        w.stats.print(w.server.connectionCount(), kBoundMs);
        // The block maps and a moment of the stuck queues' own log lines.
        x_smart_file_set_log_level(3);
        x_smart_file_dump_buffer();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        std::fflush(nullptr);
        _exit(3);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  long long seconds = 180;
  unsigned seed = static_cast<unsigned>(std::random_device{}());
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else if (std::strcmp(argv[i], "--no-range-paths") == 0 && i + 1 < argc) {
      noRangePaths = std::max(0, std::min(kPaths, std::atoi(argv[++i])));
    } else {
      seconds = std::atoll(argv[i]);
    }
  }
  // The library's lines (by default only its most important ones) go to
  // stderr with libcurl's, for the diagnosis of a fault.
  __android_log_set_logger(__android_log_stderr_logger);
  __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
  std::printf("soak: %lld s, %d threads x %d handles, %d paths (%d without ranges), seed %u\n",
              seconds, kThreads, kHandlesPerThread, kPaths, noRangePaths, seed);
  std::fflush(stdout);

  auto world = std::make_unique<World>(seed);
  World& w = *world;
  if (!w.server.ok()) {
    std::fprintf(stderr, "soak: the scripted server did not start\n");
    return 2;
  }
  std::mt19937_64 rng(seed);
  for (int i = 0; i < kPaths; ++i) {
    PathState& p = w.paths[i];
    p.path = "/soak" + std::to_string(i);
    p.size = (3LL << 20) + static_cast<long long>(rng() % (9ULL << 20));
    p.noRange = i >= kPaths - noRangePaths;
    // Lengths told, none (the end is where the connection closes), chunked,
    // and a range total of "*", on ranged and range-ignoring paths.
    static const Length kLengths[kPaths] = {Length::Told,    Length::Chunked, Length::TotalUnknown,
                                            Length::Told,    Length::None,    Length::Chunked};
    p.length = kLengths[i];
    w.server.route(p.path, baseScript(p));
  }

  std::atomic<bool> watchDone{false};
  std::thread watchdog(watch, std::ref(w), std::ref(watchDone));
  std::thread switcher(switchBehaviours, std::ref(w));
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    workers.push_back(std::make_unique<Worker>(w, i));
    Worker* worker = workers.back().get();
    threads.emplace_back([worker] { worker->run(); });
  }
  long long end = nowMs() + seconds * 1000;
  while (nowMs() < end) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  w.stopping = true;
  for (auto& t : threads) t.join();
  switcher.join();

  // Every asynchronous read reported once, or twice with status 3 (withdrawn
  // while queued and reported again by the cancel).
  for (auto& worker : workers) {
    for (auto& op : worker->ops_) {
      std::lock_guard<std::mutex> lock(op->mutex);
      bool twiceCancelled = op->reports == 2 && op->status == SMFR_ASYNC_CANCELLED &&
                            op->secondStatus == SMFR_ASYNC_CANCELLED;
      if (op->reports != 1 && !twiceCancelled) {
        w.stats.fault("async reports", "request " + std::to_string(op->reqID) + " reported " +
                                           std::to_string(op->reports) + " times, statuses " +
                                           std::to_string(op->status) + "/" +
                                           std::to_string(op->secondStatus));
      }
    }
  }
  watchDone = true;
  watchdog.join();
  int connections = w.server.connectionCount();
  w.stats.print(connections, kBoundMs);
  bool pass = w.stats.faultCount() == 0;
  workers.clear();
  world.reset();
  std::printf("soak: %s\n", pass ? "PASS" : "FAIL");
  return pass ? 0 : 1;
}
