// corvane-cat: streams a location through libcorvane's public interface to
// stdout, a file or nowhere, and reports how it went. For player developers
// checking how a URL or a local file behaves through the library.
#include <android/log.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "corvane/smart_file.h"

namespace {

const char kUsage[] =
    "usage: corvane-cat [options] LOCATION\n"
    "  LOCATION            http://..., https://... or an absolute path\n"
    "  -o FILE             write to FILE instead of stdout\n"
    "  --null              read and discard\n"
    "  --seek OFFSET       start at OFFSET\n"
    "  --length N          read at most N bytes\n"
    "  --buffer BYTES      buffer size (x_smart_file_open_x)\n"
    "  --async             read through x_smart_file_read_async\n"
    "  --log-level N       library log level; lines go to stderr\n"
    "  --user-agent S --proxy S --cookie S --cacert FILE --capath DIR --cert FILE\n"
    "  --key FILE --key-type S --ip v4|v6|whatever --limit-rate BYTES_PER_S\n"
    "  --feature-flag N    HTTP options\n";

const char* codeInWords(int code) {
  switch (code) {
    case SMFR_OK: return "ok";
    case SMFR_NOT_HTTP: return "stream already finished";
    case SMFR_FAILED: return "failed (bad handle, location not opened, or read error)";
    case SMFR_TIMEOUT: return "time-out";
    case SMFR_BUSY: return "busy: seek too far on a stream that cannot be read at random";
    case SMFR_EOF: return "end of content";
    case SMFR_NOT_AVAILABLE: return "refused: server not available";
    case SMFR_NOT_FOUND: return "not found";
    default: return "unknown code";
  }
}

bool parseNumber(const char* text, long long* out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return false;
  *out = v;
  return true;
}

double now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

struct AsyncWait {
  std::mutex mutex;
  std::condition_variable cond;
  bool done = false;
  int status = 0;
  int bytes = 0;
};

void onAsync(int, void* userdata, int status, int bytes) {
  AsyncWait* w = static_cast<AsyncWait*>(userdata);
  std::lock_guard<std::mutex> lock(w->mutex);
  w->done = true;
  w->status = status;
  w->bytes = bytes;
  w->cond.notify_all();
}

struct HttpOption {
  const char* flag;
  int (*setter)(int, const char*);
  std::string value;
};

}  // namespace

int main(int argc, char** argv) {
  std::string location, outPath;
  bool toNull = false, async = false;
  long long seekTo = -1, length = -1, buffer = -1, logLevel = -100, limitRate = -1,
            featureFlag = -100;
  std::vector<HttpOption> http = {
      {"--user-agent", x_smart_file_http_set_userAgent, ""},
      {"--proxy", x_smart_file_http_set_proxy, ""},
      {"--cookie", x_smart_file_http_set_cookie, ""},
      {"--cacert", x_smart_file_http_set_CA, ""},
      {"--capath", x_smart_file_http_set_CAPath, ""},
      {"--cert", x_smart_file_http_set_client_authert, ""},
      {"--key", x_smart_file_http_set_private_key, ""},
      {"--key-type", x_smart_file_http_set_key_type, ""},
      {"--ip", x_smart_file_http_set_ip_resolve, ""},
  };
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* what) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "corvane-cat: %s needs %s\n%s", a.c_str(), what, kUsage);
        std::exit(2);
      }
      return argv[++i];
    };
    auto number = [&](const char* what, long long min) {
      long long v = 0;
      const char* text = value(what);
      if (!parseNumber(text, &v) || v < min) {
        std::fprintf(stderr, "corvane-cat: %s: '%s' is not a valid %s\n", a.c_str(), text, what);
        std::exit(2);
      }
      return v;
    };
    bool matched = false;
    for (HttpOption& o : http) {
      if (a == o.flag) {
        o.value = value("a value");
        matched = true;
      }
    }
    if (matched) continue;
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "-o") {
      outPath = value("a file name");
    } else if (a == "--null") {
      toNull = true;
    } else if (a == "--async") {
      async = true;
    } else if (a == "--seek") {
      seekTo = number("offset", 0);
    } else if (a == "--length") {
      length = number("byte count", 0);
    } else if (a == "--buffer") {
      buffer = number("buffer size", 1);
    } else if (a == "--log-level") {
      logLevel = number("log level", -1000);
    } else if (a == "--limit-rate") {
      limitRate = number("rate", 0);
    } else if (a == "--feature-flag") {
      featureFlag = number("flag", -1000);
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      std::fprintf(stderr, "corvane-cat: unknown option %s\n%s", a.c_str(), kUsage);
      return 2;
    } else if (location.empty()) {
      location = a;
    } else {
      std::fprintf(stderr, "corvane-cat: only one LOCATION, got '%s' too\n", a.c_str());
      return 2;
    }
  }
  if (location.empty()) {
    std::fprintf(stderr, "corvane-cat: no LOCATION given\n%s", kUsage);
    return 2;
  }
  for (HttpOption& o : http) {
    if (o.flag == std::string("--ip") && !o.value.empty()) {
      if (o.value == "v4") o.value = "IPv4";
      else if (o.value == "v6") o.value = "IPv6";
      else if (o.value != "whatever") {
        std::fprintf(stderr, "corvane-cat: --ip takes v4, v6 or whatever\n");
        return 2;
      }
    }
  }
  if (logLevel != -100) {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    x_smart_file_set_log_level(static_cast<int>(logLevel));
  }

  FILE* out = nullptr;
  if (!toNull) {
    out = outPath.empty() ? stdout : std::fopen(outPath.c_str(), "wb");
    if (out == nullptr) {
      std::fprintf(stderr, "corvane-cat: cannot write %s: %s\n", outPath.c_str(), std::strerror(errno));
      return 1;
    }
  }

  bool urlOk = location[0] == '/' || strncasecmp(location.c_str(), "http://", 7) == 0 ||
               strncasecmp(location.c_str(), "https://", 8) == 0;
  if (!urlOk) {
    std::fprintf(stderr, "corvane-cat: '%s': a location must start with http://, https:// or /\n",
                 location.c_str());
    return 2;
  }
  int handle = -1;
  int r = buffer > 0 ? x_smart_file_open_x(location.c_str(), &handle, static_cast<int>(buffer))
                     : x_smart_file_open(location.c_str(), &handle);
  if (r != SMFR_OK) {
    std::fprintf(stderr, "corvane-cat: cannot open %s: %s (%d)\n", location.c_str(),
                 codeInWords(r), r);
    return 1;
  }
  for (HttpOption& o : http) {
    if (!o.value.empty() && o.setter(handle, o.value.c_str()) != SMFR_OK) {
      std::fprintf(stderr, "corvane-cat: note: %s ignored (not an HTTP source)\n", o.flag);
    }
  }
  if (limitRate >= 0) x_smart_file_http_set_speed(handle, limitRate);
  if (featureFlag != -100) x_smart_file_set_featureflag(handle, static_cast<int>(featureFlag));

  // The first open reads the device's level file; the option wins.
  if (logLevel != -100) x_smart_file_set_log_level(static_cast<int>(logLevel));
  double start = now();
  long long size = x_smart_file_size(handle);
  if (size < 0) {
    std::fprintf(stderr, "corvane-cat: cannot open %s: %s (%lld)\n", location.c_str(),
                 size == SMFR_FAILED ? "missing, unreadable or no source for it" : codeInWords(static_cast<int>(size)), size);
    x_smart_file_close(handle);
    return 1;
  }
  if (seekTo >= 0) {
    long long cur = 0;
    r = x_smart_file_seek(handle, seekTo, &cur);
    if (r != SMFR_OK) {
      std::fprintf(stderr, "corvane-cat: seek to %lld failed: %s (%d)\n", seekTo, codeInWords(r), r);
      x_smart_file_close(handle);
      return 1;
    }
  }
  bool progress = isatty(STDERR_FILENO) != 0;
  const int kChunk = 65536;
  std::vector<char> buf(kChunk);
  long long total = 0;
  int last = SMFR_OK;
  double lastShown = 0;
  for (;;) {
    long long want = kChunk;
    if (length >= 0) want = std::min<long long>(want, length - total);
    if (want <= 0) break;
    unsigned long got = 0;
    if (async) {
      AsyncWait w;
      int id = 0;
      last = x_smart_file_read_async(handle, buf.data(), static_cast<int>(want), onAsync, &w, &id);
      if (last == SMFR_OK) {
        std::unique_lock<std::mutex> lock(w.mutex);
        w.cond.wait(lock, [&] { return w.done; });
        got = static_cast<unsigned long>(w.bytes);
        last = w.status == SMFR_ASYNC_DONE ? SMFR_OK
               : w.status == SMFR_ASYNC_EOF ? SMFR_EOF : SMFR_FAILED;
      }
    } else {
      last = x_smart_file_read(handle, buf.data(), static_cast<int>(want), &got);
    }
    if (got > 0 && out != nullptr && std::fwrite(buf.data(), 1, got, out) != got) {
      std::fprintf(stderr, "corvane-cat: write failed: %s\n", std::strerror(errno));
      x_smart_file_close(handle);
      return 1;
    }
    total += static_cast<long long>(got);
    double t = now();
    if (progress && t - lastShown >= 0.2) {
      lastShown = t;
      double secs = t - start;
      if (size > 0) {
        std::fprintf(stderr, "\r%lld bytes  %5.1f%%  %.2f MiB/s   ", total, 100.0 * total / size,
                     secs > 0 ? total / secs / 1048576.0 : 0.0);
      } else {
        std::fprintf(stderr, "\r%lld bytes  %.2f MiB/s   ", total,
                     secs > 0 ? total / secs / 1048576.0 : 0.0);
      }
    }
    if (last != SMFR_OK) break;
    if (got == 0) break;
  }
  double secs = now() - start;
  if (progress) std::fputs("\n", stderr);
  if (out != nullptr && out != stdout) std::fclose(out);
  if (out == stdout) std::fflush(stdout);

  std::fprintf(stderr, "size: %lld\nread: %lld bytes\nseconds: %.3f\nthroughput: %.2f MiB/s\n",
               size, total, secs, secs > 0 ? total / secs / 1048576.0 : 0.0);
  if (char* type = x_smart_file_http_get_content_type(handle)) {
    std::fprintf(stderr, "content type: %s\n", type);
    char* server = x_smart_file_http_get_server_name(handle);
    char ip[64] = {0};
    x_smart_file_http_get_url_ip(handle, ip);
    std::fprintf(stderr, "server: %s\npeer ip: %s\ndownload status: %d\nlibrary speed: %lld B/s\n",
                 server ? server : "", ip, x_smart_file_http_get_download_status(handle),
                 x_smart_file_http_get_speed(handle));
  }
  x_smart_file_close(handle);
  bool complete = last == SMFR_OK || last == SMFR_EOF;
  if (!complete) {
    std::fprintf(stderr, "corvane-cat: read failed after %lld bytes: %s (%d)\n", total,
                 codeInWords(last), last);
    return 1;
  }
  std::fprintf(stderr, "result: %s\n", codeInWords(last));
  return 0;
}
