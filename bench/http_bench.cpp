// HTTP(S) streaming through the public interface against plain libcurl, both
// served by a real nginx on loopback that the program starts itself (the
// test-support fixture, in a temporary directory removed at the end):
//   - sequential 1 MiB reads of a 1 GiB URL vs a libcurl easy download into
//     a counting write callback (MB/s each, ratio);
//   - time to first byte: open + first read vs a fresh libcurl transfer to
//     its first write callback (median of several runs);
//   - random 64 KiB reads at 200 offsets through one handle vs one fresh
//     ranged libcurl GET per offset (median, p95); beside it the same GETs
//     asking for everything from the offset on and dropped after 64 KiB,
//     the shape of the library's own connections, and GETs on one kept-alive
//     connection.
// Every byte is checked against the pattern nginx serves (a sample of each
// large read, all of each random read, outside the timed part), so a fast
// wrong answer shows. It measures and prints; it asserts no time. The exit
// code is 0 only when every byte checked was right.
// The library's transfers trace to stderr (libcurl's verbose output); that
// trace is discarded unless --trace is given.
//   http_bench [--no-https] [--size MiB] [--trace]
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "corvane/smart_file.h"
#include "support/nginx_fixture.h"
#include "support/scripted_http_server.h"

using testsupport::firstPatternMismatch;
using testsupport::NginxFixture;

namespace {

constexpr int kSeqRead = 1 << 20;
constexpr int kRandomRead = 64 * 1024;
constexpr int kRandomOffsets = 200;
constexpr int kFirstByteRuns = 15;
constexpr int kFirstRead = 4096;
constexpr int kSequentialRounds = 3;
constexpr long long kSample = 64;

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point from) {
  return std::chrono::duration<double>(Clock::now() - from).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double percentile95(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, v.size() * 95 / 100)];
}

// Checks kSample bytes at the start, the middle and the end of `n` bytes
// that should be the pattern at `offset`.
bool sampleMatches(const char* data, long long offset, long long n) {
  long long s = std::min(n, kSample);
  long long mid = (n - s) / 2;
  return firstPatternMismatch(data, offset, s) == -1 &&
         firstPatternMismatch(data + mid, offset + mid, s) == -1 &&
         firstPatternMismatch(data + n - s, offset + n - s, s) == -1;
}

// ---- libcurl side -------------------------------------------------------

struct CurlSink {
  long long offset = 0;       // pattern offset of the first byte expected
  long long total = 0;        // bytes received
  int wrong = 0;              // chunks whose sample did not match
  bool stopAtFirst = false;   // end the transfer at the first chunk
  long long stopAfter = -1;   // end the transfer once this many bytes came
  Clock::time_point first{};  // when the first chunk came
  std::vector<char>* keep = nullptr;  // collect the body here when set
};

size_t curlWrite(char* data, size_t size, size_t count, void* user) {
  CurlSink* sink = static_cast<CurlSink*>(user);
  size_t n = size * count;
  if (sink->total == 0) sink->first = Clock::now();
  if (sink->keep != nullptr) {
    size_t take = n;
    if (sink->stopAfter >= 0) {
      take = static_cast<size_t>(std::min<long long>(static_cast<long long>(n),
                                                     sink->stopAfter - sink->total));
    }
    sink->keep->insert(sink->keep->end(), data, data + take);
  } else if (n > 0 && !sampleMatches(data, sink->offset + sink->total, static_cast<long long>(n))) {
    ++sink->wrong;
  }
  sink->total += static_cast<long long>(n);
  bool stop = sink->stopAtFirst || (sink->stopAfter >= 0 && sink->total >= sink->stopAfter);
  return stop ? 0 : n;  // 0 ends the transfer with a write error
}

// A fresh easy handle set up like a plain client would (the server's
// certificate is self-signed, so it is not verified, as the library does).
CURL* newCurl(const std::string& url, CurlSink* sink) {
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, curlWrite);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  return curl;
}

double curlSequential(const std::string& url, long long size, int* wrong) {
  CurlSink sink;
  auto start = Clock::now();
  CURL* curl = newCurl(url, &sink);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  double elapsed = seconds(start);
  if (rc != CURLE_OK || sink.total != size || sink.wrong != 0) {
    std::printf("    libcurl: code %d, %lld of %lld bytes, %d wrong chunks\n", rc, sink.total,
                size, sink.wrong);
    ++*wrong;
  }
  return static_cast<double>(sink.total) / elapsed / 1e6;
}

// Microseconds from curl_easy_init to the first write callback; also
// libcurl's own CURLINFO_STARTTRANSFER_TIME in `reported`.
double curlFirstByte(const std::string& url, double* reported, int* wrong) {
  CurlSink sink;
  sink.stopAtFirst = true;
  auto start = Clock::now();
  CURL* curl = newCurl(url, &sink);
  curl_easy_perform(curl);  // ends with a write error by design
  curl_easy_getinfo(curl, CURLINFO_STARTTRANSFER_TIME, reported);
  curl_easy_cleanup(curl);
  if (sink.total == 0 || sink.wrong != 0) ++*wrong;
  *reported *= 1e6;
  return std::chrono::duration<double>(sink.first - start).count() * 1e6;
}

// Microseconds of one ranged GET of `n` bytes at `offset`: on a fresh easy
// handle (new connection) or on `reuse` (kept-alive connection). With
// `openEnded` it asks for everything from `offset` on ("bytes=N-", as the
// library's connections do) and drops the connection after `n` bytes.
double curlRange(const std::string& url, long long offset, int n, CURL* reuse, bool openEnded,
                 int* wrong) {
  std::vector<char> body;
  body.reserve(static_cast<size_t>(n));
  CurlSink sink;
  sink.keep = &body;
  std::string range = std::to_string(offset) + "-";
  if (openEnded) {
    sink.stopAfter = n;
  } else {
    range += std::to_string(offset + n - 1);
  }
  auto start = Clock::now();
  CURL* curl = reuse;
  if (curl == nullptr) {
    curl = newCurl(url, &sink);
  } else {
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  }
  curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());
  CURLcode rc = curl_easy_perform(curl);
  if (reuse == nullptr) curl_easy_cleanup(curl);
  double micros = seconds(start) * 1e6;
  if (openEnded && rc == CURLE_WRITE_ERROR) rc = CURLE_OK;  // our own stop
  if (rc != CURLE_OK || static_cast<int>(body.size()) != n ||
      firstPatternMismatch(body.data(), offset, n) != -1) {
    ++*wrong;
  }
  return micros;
}

// ---- library side -------------------------------------------------------

// Reads exactly `n` bytes (fewer only at the end or on failure).
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

double librarySequential(const std::string& url, long long size, std::vector<char>& buf,
                         int* wrong) {
  auto start = Clock::now();
  int handle = -1;
  if (x_smart_file_open(url.c_str(), &handle) != SMFR_OK) {
    ++*wrong;
    return 0;
  }
  long long total = 0;
  int code = SMFR_OK;
  int badReads = 0;
  while (code == SMFR_OK) {
    unsigned long got = 0;
    code = x_smart_file_read(handle, buf.data(), kSeqRead, &got);
    if (got > 0 && !sampleMatches(buf.data(), total, static_cast<long long>(got))) ++badReads;
    total += static_cast<long long>(got);
    if (got == 0) break;
  }
  x_smart_file_close(handle);
  double elapsed = seconds(start);
  if (total != size || code != SMFR_EOF || badReads != 0) {
    std::printf("    library: code %d, %lld of %lld bytes, %d wrong reads\n", code, total, size,
                badReads);
    ++*wrong;
  }
  return static_cast<double>(total) / elapsed / 1e6;
}

// Microseconds of open + first read of kFirstRead bytes (close not timed);
// the open alone in `openMicros`.
double libraryFirstByte(const std::string& url, double* openMicros, int* wrong) {
  std::vector<char> buf(kFirstRead);
  auto start = Clock::now();
  int handle = -1;
  int opened = x_smart_file_open(url.c_str(), &handle);
  *openMicros = seconds(start) * 1e6;
  unsigned long got = 0;
  int code = x_smart_file_read(handle, buf.data(), kFirstRead, &got);
  double micros = seconds(start) * 1e6;
  x_smart_file_close(handle);
  if (opened != SMFR_OK || code != SMFR_OK || got == 0 ||
      firstPatternMismatch(buf.data(), 0, static_cast<long long>(got)) != -1) {
    ++*wrong;
  }
  return micros;
}

std::vector<double> libraryRandom(const std::string& url, const std::vector<long long>& offsets,
                                  int* wrong) {
  std::vector<double> micros;
  std::vector<char> buf(kRandomRead);
  int handle = -1;
  if (x_smart_file_open(url.c_str(), &handle) != SMFR_OK) {
    ++*wrong;
    return micros;
  }
  for (long long offset : offsets) {
    auto start = Clock::now();
    long long cur = -1;
    int sought = x_smart_file_seek(handle, offset, &cur);
    int code = SMFR_OK;
    long long got = readFully(handle, buf.data(), kRandomRead, &code);
    micros.push_back(seconds(start) * 1e6);
    if (sought != SMFR_OK || cur != offset || got != kRandomRead ||
        firstPatternMismatch(buf.data(), offset, kRandomRead) != -1) {
      ++*wrong;
    }
  }
  x_smart_file_close(handle);
  return micros;
}

// ---- one scheme ------------------------------------------------------------

void printRounds(const std::vector<double>& v) {
  std::printf(" (rounds:");
  for (double x : v) std::printf(" %.0f", x);
  std::printf(")\n");
}

void runScheme(const char* scheme, const std::string& url, long long size, int* wrong) {
  std::printf("%s, %lld MiB at %s\n", scheme, size >> 20, url.c_str());
  std::vector<char> buf(kSeqRead);

  // Rounds alternate so that a noisy neighbour hurts both sides alike.
  std::vector<double> curlRates, libRates;
  for (int round = 0; round < kSequentialRounds; ++round) {
    curlRates.push_back(curlSequential(url, size, wrong));
    libRates.push_back(librarySequential(url, size, buf, wrong));
  }
  std::printf("  sequential, median of %d rounds:\n", kSequentialRounds);
  std::printf("    libcurl download           %6.0f MB/s", median(curlRates));
  printRounds(curlRates);
  std::printf("    x_smart_file_read 1 MiB    %6.0f MB/s", median(libRates));
  printRounds(libRates);
  std::printf("    ratio %.2f (target >= 0.9)\n", median(libRates) / median(curlRates));

  std::vector<double> curlFirst, curlReported, libFirst, libOpen;
  for (int run = 0; run < kFirstByteRuns; ++run) {
    double reported = 0;
    double opening = 0;
    curlFirst.push_back(curlFirstByte(url, &reported, wrong));
    curlReported.push_back(reported);
    libFirst.push_back(libraryFirstByte(url, &opening, wrong));
    libOpen.push_back(opening);
  }
  std::printf("  time to first byte, median of %d (p95):\n", kFirstByteRuns);
  std::printf("    libcurl to first write     %6.0f us (%.0f); STARTTRANSFER_TIME %.0f us\n",
              median(curlFirst), percentile95(curlFirst), median(curlReported));
  std::printf("    open + first %d B read   %6.0f us (%.0f); the open alone %.0f us\n",
              kFirstRead, median(libFirst), percentile95(libFirst), median(libOpen));

  std::mt19937_64 rng(20261121);
  std::vector<long long> offsets;
  for (int i = 0; i < kRandomOffsets; ++i) {
    offsets.push_back(static_cast<long long>(rng() % static_cast<unsigned long long>(size - kRandomRead)));
  }
  std::vector<double> libRandom = libraryRandom(url, offsets, wrong);
  std::vector<double> curlFresh, curlOpen, curlKept;
  for (long long offset : offsets) {
    curlFresh.push_back(curlRange(url, offset, kRandomRead, nullptr, false, wrong));
  }
  for (long long offset : offsets) {
    curlOpen.push_back(curlRange(url, offset, kRandomRead, nullptr, true, wrong));
  }
  CurlSink unused;
  CURL* kept = newCurl(url, &unused);
  for (long long offset : offsets) {
    curlKept.push_back(curlRange(url, offset, kRandomRead, kept, false, wrong));
  }
  curl_easy_cleanup(kept);
  std::printf("  random 64 KiB reads at %d offsets, median (p95):\n", kRandomOffsets);
  std::printf("    seek + read, one handle    %6.0f us (%.0f)\n", median(libRandom),
              percentile95(libRandom));
  std::printf("    libcurl fresh ranged GET   %6.0f us (%.0f)\n", median(curlFresh),
              percentile95(curlFresh));
  std::printf("    libcurl fresh \"bytes=N-\" GET %5.0f us (%.0f), dropped after 64 KiB\n",
              median(curlOpen), percentile95(curlOpen));
  std::printf("    libcurl kept-alive GET     %6.0f us (%.0f)\n", median(curlKept),
              percentile95(curlKept));
}

}  // namespace

int main(int argc, char** argv) {
  bool https = true;
  bool trace = false;
  long long size = 1LL << 30;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-https") == 0) {
      https = false;
    } else if (std::strcmp(argv[i], "--trace") == 0) {
      trace = true;
    } else if (std::strcmp(argv[i], "--size") == 0 && i + 1 < argc) {
      size = std::atoll(argv[++i]) << 20;
    } else {
      std::fprintf(stderr, "usage: http_bench [--no-https] [--size MiB] [--trace]\n");
      return 2;
    }
  }
  if (size < (4LL << 20)) size = 4LL << 20;
  if (!NginxFixture::available()) {
    std::printf("http_bench: skipped, %s is not installed\n", testsupport::kNginxBinary);
    return 0;
  }
  // Output cut short (e.g. piped into head) must not kill the program
  // before nginx is stopped and its directory removed.
  signal(SIGPIPE, SIG_IGN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (!trace) {
    int devnull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devnull >= 0) {
      ::dup2(devnull, 2);
      ::close(devnull);
    }
  }
  int wrong = 0;
  {
    NginxFixture nginx;
    std::string why;
    if (!nginx.start(&why)) {
      std::printf("http_bench: nginx: %s\n", why.c_str());
      return 1;
    }
    nginx.addPatternFile("big.bin", size);
    runScheme("HTTP", nginx.httpUrl("big.bin"), size, &wrong);
    if (https) runScheme("HTTPS", nginx.httpsUrl("big.bin"), size, &wrong);
  }  // nginx stops and its directory goes here
  std::printf("bytes checked: %s\n", wrong == 0 ? "all right" : "WRONG");
  if (wrong != 0) std::printf("  %d transfers or reads gave wrong or missing bytes\n", wrong);
  return wrong == 0 ? 0 : 2;
}
