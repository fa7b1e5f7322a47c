// libFuzzer target for the response header analysis and the first-answer
// decision of the HTTP source.
//
// The input is a raw header block. It is fed once whole and once cut into
// header callbacks at points derived from the input (its size and middle
// byte seed the cuts, so seed files stay plain header blocks), the way
// libcurl may hand it over. Both feeds must keep the same first 8192 bytes
// and give the same answers, and each answer must match the rule it stands
// for: the Content-Length spellings, seekability decided on the first line
// (no range was sent: there is no transfer), the size after the "/" of the
// first Content-Range line, the Server value without surrounding blanks.
// The first-answer decision then runs for a spread of response codes with
// the block's length header. Any disagreement aborts, so the fuzzer reports
// it. The response code of a running transfer is not available here, so the
// dropping of redirect lines (301, 302) is left to the unit tests.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "diag/log.h"
#include "http/header_value.h"
#include "http/method_request.h"
#include "source/http_file_request.h"

namespace {

constexpr size_t kCapacity = webs::MethodRequest::kHeaderCapacity;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "header_analysis_fuzz: %s\n", what);
    std::abort();
  }
}

bool beginsWith(const std::string& line, const char* prefix) {
  return line.compare(0, std::strlen(prefix), prefix) == 0;
}

std::vector<std::string> linesOf(const std::string& block) {
  std::vector<std::string> lines;
  size_t begin = 0;
  while (begin < block.size()) {
    size_t end = block.find('\n', begin);
    if (end == std::string::npos) end = block.size();
    lines.push_back(block.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

bool isBlank(char c) { return c == ' ' || (c >= 9 && c <= 13); }

// Small deterministic generator for the cuts.
struct Cuts {
  uint32_t state;
  uint32_t next() {
    state = state * 1103515245u + 12345u;
    return state >> 8;
  }
};

void feed(webs::MethodRequest& m, const char* data, size_t size, Cuts* cuts) {
  size_t at = 0;
  while (at < size) {
    size_t n = size - at;
    if (cuts != nullptr) {
      uint32_t r = cuts->next();
      // Mostly short pieces (inside lines), sometimes long ones.
      n = (r & 7) == 0 ? 1 + r % 1024 : 1 + r % 48;
      if (n > size - at) n = size - at;
      if ((r & 31) == 1) {
        // libcurl never sends an empty piece; one must change nothing.
        check(m.headerContentIn(const_cast<char*>(data + at), 1, 0) == 0,
              "an empty piece was not answered 0");
      }
    }
    // As size x count: libcurl passes 1 x n, a caller may pass n x 1.
    unsigned long unit = (n % 2 == 0 && cuts != nullptr && (cuts->state & 64)) ? 2 : 1;
    int taken = m.headerContentIn(const_cast<char*>(data + at), unit, n / unit);
    check(taken == static_cast<int>(n), "a piece was not taken whole");
    at += n;
  }
}

std::string blockOf(webs::MethodRequest& m) {
  int length = -1;
  check(m.getResponseHeader(nullptr, 0, &length) == 0, "getResponseHeader failed");
  check(length >= 0 && static_cast<size_t>(length) <= kCapacity, "header length out of range");
  std::string block(static_cast<size_t>(length), '\0');
  int again = -1;
  if (length > 0) m.getResponseHeader(&block[0], length, &again);
  return block;
}

// The value after the first ":" of `line`, as the Server rule reads it.
std::string valueRule(const char* line) {
  const char* p = std::strchr(line, ':');
  if (p == nullptr) return std::string();
  ++p;
  while (*p != '\0' && isBlank(*p)) ++p;
  const char* end = std::strchr(p, '\r');
  if (end == nullptr) end = std::strchr(p, '\n');
  if (end == nullptr) end = p + std::strlen(p);
  while (end > p && isBlank(end[-1])) --end;
  return std::string(p, static_cast<size_t>(end - p));
}

// The length libcurl would report: the first Content-Length header in any
// case, -1 without one.
long long lengthHeader(const std::vector<std::string>& lines) {
  for (const auto& raw : lines) {
    std::string line = raw;
    for (char& c : line) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (beginsWith(line, "content-length:")) {
      return std::strtoll(raw.c_str() + 15, nullptr, 10);
    }
  }
  return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  util::LOG_LEV = -100;  // quiet: the analysis logs every step
  const char* data = reinterpret_cast<const char*>(input);
  Cuts cuts{static_cast<uint32_t>(size * 2654435761u) ^ (size == 0 ? 0u : input[size / 2])};

  webs::MethodRequest whole;
  webs::MethodRequest cut;
  feed(whole, data, size, nullptr);
  feed(cut, data, size, &cuts);

  // The first 8192 bytes are kept, as received, in both.
  std::string block = blockOf(whole);
  check(block.size() == std::min(size, kCapacity), "the block is not the first 8192 bytes");
  check(std::memcmp(block.data(), data, block.size()) == 0, "the block differs from the input");
  check(blockOf(cut) == block, "cut and whole feeds kept different blocks");

  // A copy into a short, empty or negative buffer never writes past it.
  int shortSize = size == 0 ? 0 : static_cast<int>(input[0] % 97) - 8;
  std::vector<char> shortBuf(static_cast<size_t>(shortSize > 0 ? shortSize : 0) + 1, '\x5a');
  int length = -1;
  whole.getResponseHeader(shortBuf.data(), shortSize, &length);
  check(length == static_cast<int>(block.size()), "getResponseHeader reports another length");
  check(shortBuf.back() == '\x5a', "getResponseHeader wrote past the size given");

  std::vector<std::string> lines = linesOf(block);

  bool lengthFound = false;
  for (const auto& line : lines) {
    if (beginsWith(line, "Content-Length") || beginsWith(line, "content-length") ||
        beginsWith(line, "Content-length") || beginsWith(line, "CONTENT-LENGTH")) {
      lengthFound = true;
      break;
    }
  }
  check(whole.checkFromContentLength() == lengthFound, "Content-Length spellings misread");
  check(cut.checkFromContentLength() == lengthFound, "Content-Length differs after cuts");

  // No range was sent, so the first line decides.
  bool seekable = false;
  if (!lines.empty()) {
    std::string first = lines[0];
    for (char& c : first) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    seekable = !beginsWith(first, "accept-ranges: none");
  }
  check(whole.seekAbleCheckFromResponse() == seekable, "seekability misread");
  check(cut.seekAbleCheckFromResponse() == seekable, "seekability differs after cuts");

  long long total = 0;
  for (const auto& line : lines) {
    if (!beginsWith(line, "CONTENT-RANGE") && !beginsWith(line, "Content-Range")) continue;
    size_t slash = line.find('/');
    total = slash == std::string::npos ? 0 : std::atol(line.c_str() + slash + 1);
    break;
  }
  check(whole.getSizeFromResponseRange() == total, "Content-Range size misread");
  check(cut.getSizeFromResponseRange() == total, "Content-Range size differs after cuts");

  // Server: searched in the block up to its first NUL.
  std::string upToNul(block.c_str());
  size_t at = upToNul.find("Server:");
  std::string server = at == std::string::npos ? std::string() : valueRule(upToNul.c_str() + at);
  std::string name = whole.getServerName();
  check(name == server, "Server value misread");
  check(whole.getServerName() == name, "Server value changed on the second call");
  check(cut.getServerName() == name, "Server value differs after cuts");

  // The value copier on the raw input as one NUL-terminated line.
  std::string line(data, size);
  char* copied = webs::_copy_header_value(line.c_str());
  check(copied != nullptr, "value copy failed");
  check(std::string(copied) == valueRule(line.c_str()), "value copy differs from the rule");
  std::free(copied);

  // The first-answer decision for a spread of codes, with the block's length
  // header and with a long length.
  long long found = lengthHeader(lines);
  static const long kCodes[] = {0, 100, 200, 206, 302, 404, 503};
  for (long code : kCodes) {
    for (long long len : {found, static_cast<long long>(webs::kSmallContentSize) + 5}) {
      webs::HttpFileRequest::FirstAnswer a = webs::HttpFileRequest::decideFirstAnswer(code, len, whole);
      webs::HttpFileRequest::FirstAnswer b = webs::HttpFileRequest::decideFirstAnswer(code, len, cut);
      check(a.proceed == b.proceed && a.errorEvent == b.errorEvent && a.size == b.size &&
                a.seekable == b.seekable,
            "first-answer decision differs after cuts");
      if (code == 0) {
        check(a.proceed && !a.seekable && a.size == webs::kUnknownContentSize,
              "an answer without a code is not of unknown size");
      } else if (code >= 400) {
        check(!a.proceed && !a.errorEvent, "an error answer goes on");
      } else if (code != 200 && code != 206) {
        check(!a.proceed && a.errorEvent, "an unexpected answer is not a stream error");
      } else {
        check(a.proceed, "a 200/206 answer does not go on");
        check(a.size != 0, "a 200/206 answer leaves the size at 0");
        bool usable = len > 0 && (len >= webs::kSmallContentSize || lengthFound);
        if (usable && code == 200) {
          check(a.size == len && a.seekable == seekable, "a usable 200 answer misjudged");
        } else if (usable) {
          check(a.seekable && a.size == (total > 0 ? total : len), "a usable 206 answer misjudged");
        } else if (code == 206) {
          check(a.seekable == (total != 0) &&
                    a.size == (total != 0 ? total : webs::kUnknownContentSize),
                "a 206 answer without a usable length misjudged");
        } else {
          check(!a.seekable && a.size == webs::kUnknownContentSize,
                "a 200 answer without a usable length misjudged");
        }
      }
    }
  }
  return 0;
}
