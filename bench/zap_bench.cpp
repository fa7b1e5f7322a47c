// What a viewer feels when zapping, measured side by side with the bare
// system doing the same work, in one run, against a real nginx on loopback
// that the program starts itself:
//   open + first 64 KiB + close  vs a fresh libcurl GET of 64 KiB
//   64 KiB at a random offset    vs a fresh ranged libcurl GET (one handle
//                                   seeks and reads on the library's side)
//   local file, 64 KiB reads     vs read(2)
//   sequential HTTP, 1 MiB reads vs a libcurl download with a 512 KiB buffer
// Each row alternates the two sides over several runs (a noisy neighbour
// hurts both alike) and prints the median over the runs of each run's median
// and p95, and the ratio library / reference. Every byte is checked against
// the pattern outside the timed part (all of each 64 KiB read, a sample of
// each large one), so a fast wrong answer shows. It measures and prints; it
// asserts no time: the exit code says only whether every byte was right.
//   zap_bench [--runs N] [--requests N] [--size MiB] [--https] [--trace]
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "corvane/smart_file.h"
#include "support/nginx_fixture.h"
#include "support/support.h"

using testsupport::fillPattern;
using testsupport::firstPatternMismatch;

namespace {

constexpr int kSmallRead = 64 * 1024;
constexpr int kLocalRead = 64 * 1024;
constexpr int kHttpRead = 1 << 20;
constexpr long kCurlBuffer = 512 * 1024;
constexpr long long kSample = 64;

using Clock = std::chrono::steady_clock;

struct Options {
  int runs = 5;
  int requests = 200;
  long long size = 1LL << 30;
  bool https = false;
};

int wrong = 0;  // transfers or reads that gave wrong or missing bytes

double microsSince(Clock::time_point from) {
  return std::chrono::duration<double>(Clock::now() - from).count() * 1e6;
}

double quantile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(static_cast<double>(v.size()) * q))];
}

bool sampleMatches(const char* data, long long offset, long long n) {
  long long s = std::min(n, kSample);
  long long mid = (n - s) / 2;
  return firstPatternMismatch(data, offset, s) == -1 &&
         firstPatternMismatch(data + mid, offset + mid, s) == -1 &&
         firstPatternMismatch(data + n - s, offset + n - s, s) == -1;
}

// ---- reference side ---------------------------------------------------------

struct Body {
  std::vector<char>* keep = nullptr;  // whole body kept (small transfers)
  long long total = 0;
  int badChunks = 0;                  // sampled chunks that were wrong (large ones)
};

size_t curlWrite(char* data, size_t size, size_t count, void* user) {
  Body* body = static_cast<Body*>(user);
  size_t n = size * count;
  if (body->keep != nullptr) {
    body->keep->insert(body->keep->end(), data, data + n);
  } else if (n > 0 && !sampleMatches(data, body->total, static_cast<long long>(n))) {
    ++body->badChunks;
  }
  body->total += static_cast<long long>(n);
  return n;
}

// A fresh easy handle per transfer, as a plain client would use; the
// self-signed certificate is not verified, as the library does not.
CURLcode curlGet(const std::string& url, const char* range, long bufferSize, Body* body) {
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, curlWrite);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, body);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  if (range != nullptr) curl_easy_setopt(curl, CURLOPT_RANGE, range);
  if (bufferSize > 0) curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, bufferSize);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  return rc;
}

double curlRange(const std::string& url, long long offset, std::vector<char>* buf) {
  buf->clear();
  Body body;
  body.keep = buf;
  std::string range = std::to_string(offset) + "-" + std::to_string(offset + kSmallRead - 1);
  auto start = Clock::now();
  CURLcode rc = curlGet(url, range.c_str(), 0, &body);
  double micros = microsSince(start);
  if (rc != CURLE_OK || buf->size() != static_cast<size_t>(kSmallRead) ||
      firstPatternMismatch(buf->data(), offset, kSmallRead) != -1) {
    ++wrong;
  }
  return micros;
}

// ---- library side -----------------------------------------------------------

long long readFully(int handle, char* buf, long long n, int* code) {
  long long done = 0;
  *code = SMFR_OK;
  while (done < n) {
    unsigned long got = 0;
    *code = x_smart_file_read(handle, buf + done, static_cast<int>(n - done), &got);
    done += static_cast<long long>(got);
    if (*code != SMFR_OK || got == 0) break;
  }
  return done;
}

double libraryFirst(const std::string& url, std::vector<char>* buf) {
  auto start = Clock::now();
  int handle = -1;
  int opened = x_smart_file_open(url.c_str(), &handle);
  int code = SMFR_OK;
  long long got = readFully(handle, buf->data(), kSmallRead, &code);
  x_smart_file_close(handle);
  double micros = microsSince(start);
  if (opened != SMFR_OK || got != kSmallRead ||
      firstPatternMismatch(buf->data(), 0, kSmallRead) != -1) {
    ++wrong;
  }
  return micros;
}

double librarySeekRead(int handle, long long offset, std::vector<char>* buf) {
  auto start = Clock::now();
  long long now = -1;
  int sought = x_smart_file_seek(handle, offset, &now);
  int code = SMFR_OK;
  long long got = readFully(handle, buf->data(), kSmallRead, &code);
  double micros = microsSince(start);
  if (sought != SMFR_OK || now != offset || got != kSmallRead ||
      firstPatternMismatch(buf->data(), offset, kSmallRead) != -1) {
    ++wrong;
  }
  return micros;
}

// Reads all of `location` in `chunk`-byte reads; bytes per second.
double librarySequential(const std::string& location, long long size, int chunk,
                         std::vector<char>* buf) {
  auto start = Clock::now();
  int handle = -1;
  if (x_smart_file_open(location.c_str(), &handle) != SMFR_OK) {
    ++wrong;
    return 0;
  }
  long long total = 0;
  int code = SMFR_OK;
  int bad = 0;
  while (code == SMFR_OK) {
    unsigned long got = 0;
    code = x_smart_file_read(handle, buf->data(), chunk, &got);
    if (got > 0 && !sampleMatches(buf->data(), total, static_cast<long long>(got))) ++bad;
    total += static_cast<long long>(got);
    if (got == 0) break;
  }
  x_smart_file_close(handle);
  double micros = microsSince(start);
  if (total != size || code != SMFR_EOF || bad != 0) {
    std::printf("    library: code %d, %lld of %lld bytes, %d wrong reads\n", code, total, size,
                bad);
    ++wrong;
  }
  return static_cast<double>(total) / micros * 1e6;
}

double plainReadSequential(const std::string& path, long long size, std::vector<char>* buf) {
  auto start = Clock::now();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  long long total = 0;
  int bad = 0;
  for (;;) {
    ssize_t n = fd < 0 ? -1 : ::read(fd, buf->data(), kLocalRead);
    if (n <= 0) break;
    if (!sampleMatches(buf->data(), total, n)) ++bad;
    total += n;
  }
  if (fd >= 0) ::close(fd);
  double micros = microsSince(start);
  if (total != size || bad != 0) ++wrong;
  return static_cast<double>(total) / micros * 1e6;
}

double curlSequential(const std::string& url, long long size) {
  Body body;
  auto start = Clock::now();
  CURLcode rc = curlGet(url, nullptr, kCurlBuffer, &body);
  double micros = microsSince(start);
  if (rc != CURLE_OK || body.total != size || body.badChunks != 0) ++wrong;
  return static_cast<double>(body.total) / micros * 1e6;
}

// ---- the table --------------------------------------------------------------

struct Side {
  std::vector<double> medians, p95s;
};

// Latency row: each run does `requests` operations on each side.
void latencyRow(const char* what, const char* reference, const Options& o,
                const std::function<double(int)>& refOne,
                const std::function<std::vector<double>()>& libRun) {
  Side ref, lib;
  for (int run = 0; run < o.runs; ++run) {
    std::vector<double> r;
    for (int i = 0; i < o.requests; ++i) r.push_back(refOne(i));
    std::vector<double> l = libRun();
    ref.medians.push_back(quantile(r, 0.5));
    ref.p95s.push_back(quantile(r, 0.95));
    lib.medians.push_back(quantile(l, 0.5));
    lib.p95s.push_back(quantile(l, 0.95));
  }
  double rm = quantile(ref.medians, 0.5), lm = quantile(lib.medians, 0.5);
  double rp = quantile(ref.p95s, 0.5), lp = quantile(lib.p95s, 0.5);
  std::printf("%-34s %-28s %7.0f us (p95 %5.0f) | library %7.0f us (p95 %5.0f) | %5.2fx"
              " (p95 %5.2fx)\n",
              what, reference, rm, rp, lm, lp, lm / rm, lp / rm);
  std::printf("%-34s runs' medians, reference:", "");
  for (double v : ref.medians) std::printf(" %.0f", v);
  std::printf("; library:");
  for (double v : lib.medians) std::printf(" %.0f", v);
  std::printf("\n");
}

// Throughput row: each run is one whole pass on each side.
void throughputRow(const char* what, const char* reference, const Options& o,
                   const std::function<double()>& refRun, const std::function<double()>& libRun) {
  std::vector<double> ref, lib;
  for (int run = 0; run < o.runs; ++run) {
    ref.push_back(refRun() / 1e9);
    lib.push_back(libRun() / 1e9);
  }
  double r = quantile(ref, 0.5), l = quantile(lib, 0.5);
  std::printf("%-34s %-28s %7.2f GB/s            | library %7.2f GB/s            | %5.2f\n",
              what, reference, r, l, l / r);
  std::printf("%-34s runs, reference:", "");
  for (double v : ref) std::printf(" %.2f", v);
  std::printf("; library:");
  for (double v : lib) std::printf(" %.2f", v);
  std::printf("\n");
}

bool writePatternFile(const std::string& path, long long size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::vector<char> chunk(1 << 20);
  bool ok = true;
  for (long long at = 0; ok && at < size; at += static_cast<long long>(chunk.size())) {
    long long n = std::min<long long>(static_cast<long long>(chunk.size()), size - at);
    fillPattern(chunk.data(), at, n);
    ok = ::write(fd, chunk.data(), static_cast<size_t>(n)) == n;
  }
  ::close(fd);
  return ok;
}

void runTable(const std::string& url, const std::string& localPath, const Options& o) {
  std::vector<char> small(kSmallRead);
  std::vector<char> large(kHttpRead);
  std::string firstRange = "0-" + std::to_string(kSmallRead - 1);
  latencyRow("open + first 64 KiB + close", "fresh libcurl GET of 64 KiB", o,
             [&](int) {
               small.clear();
               Body body;
               body.keep = &small;
               auto start = Clock::now();
               CURLcode rc = curlGet(url, firstRange.c_str(), 0, &body);
               double micros = microsSince(start);
               if (rc != CURLE_OK || small.size() != static_cast<size_t>(kSmallRead) ||
                   firstPatternMismatch(small.data(), 0, kSmallRead) != -1) {
                 ++wrong;
               }
               small.resize(kSmallRead);
               return micros;
             },
             [&] {
               std::vector<double> v;
               for (int i = 0; i < o.requests; ++i) v.push_back(libraryFirst(url, &small));
               return v;
             });

  std::mt19937_64 rng(20261124);
  std::vector<long long> offsets;
  for (int i = 0; i < o.requests; ++i) {
    offsets.push_back(static_cast<long long>(rng() % static_cast<unsigned long long>(o.size - kSmallRead)));
  }
  latencyRow("64 KiB at a random offset", "fresh ranged libcurl GET", o,
             [&](int i) {
               double micros = curlRange(url, offsets[static_cast<size_t>(i)], &small);
               small.resize(kSmallRead);
               return micros;
             },
             [&] {
               std::vector<double> v;
               int handle = -1;
               if (x_smart_file_open(url.c_str(), &handle) != SMFR_OK) {
                 ++wrong;
                 return v;
               }
               for (long long offset : offsets) v.push_back(librarySeekRead(handle, offset, &small));
               x_smart_file_close(handle);
               return v;
             });

  std::vector<char> localBuf(kLocalRead);
  plainReadSequential(localPath, o.size, &localBuf);  // into the page cache
  throughputRow("local file, 64 KiB reads", "read(2)", o,
                [&] { return plainReadSequential(localPath, o.size, &localBuf); },
                [&] { return librarySequential(localPath, o.size, kLocalRead, &localBuf); });
  throughputRow("sequential HTTP, 1 MiB reads", "libcurl, 512 KiB buffer", o,
                [&] { return curlSequential(url, o.size); },
                [&] { return librarySequential(url, o.size, kHttpRead, &large); });
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool trace = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--runs" && hasValue) {
      o.runs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--requests" && hasValue) {
      o.requests = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--size" && hasValue) {
      o.size = std::max(4LL, std::atoll(argv[++i])) << 20;
    } else if (arg == "--https") {
      o.https = true;
    } else if (arg == "--trace") {
      trace = true;
    } else {
      std::fprintf(stderr,
                   "usage: zap_bench [--runs N] [--requests N] [--size MiB] [--https] [--trace]\n");
      return 2;
    }
  }
  // Output cut short (piped into head) must not kill the program before
  // nginx is stopped and its directory removed.
  signal(SIGPIPE, SIG_IGN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (!trace) {
    // The library's transfers trace libcurl's verbose output to stderr.
    int devnull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devnull >= 0) {
      ::dup2(devnull, 2);
      ::close(devnull);
    }
  }
  {
    testsupport::TempDir dir;
    std::string local = dir.file("local.bin");
    if (!writePatternFile(local, o.size)) {
      std::printf("zap_bench: cannot write %s\n", local.c_str());
      return 1;
    }
    testsupport::NginxFixture nginx;
    std::string why;
    if (!nginx.start(&why)) {
      std::printf("zap_bench: nginx: %s\n", why.c_str());
      return 1;
    }
    nginx.addPatternFile("big.bin", o.size);
    std::string url = nginx.url("big.bin", o.https);
    std::printf("%s, %lld MiB file, %d runs of %d requests; medians over the runs\n", url.c_str(),
                o.size >> 20, o.runs, o.requests);
    runTable(url, local, o);
  }  // nginx stops and the directories go here
  std::printf("bytes checked: %s\n", wrong == 0 ? "all right" : "WRONG");
  if (wrong != 0) std::printf("  %d transfers or reads gave wrong or missing bytes\n", wrong);
  return wrong == 0 ? 0 : 2;
}
