// MethodRequest: the raw response header block and what is learnt from it
// (length usable, seekability, size from Content-Range, server name).
//
// The checks test how lines begin, in the spellings devices have always
// matched; their quirks are kept because players depend on the answers they
// give (notably that seekability is decided on the status line).
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "diag/log.h"
#include "http/header_value.h"
#include "http/method_request.h"
#include "thread/sync_guard.h"

namespace webs {

namespace {

bool beginsWith(std::string const& line, char const* prefix) {
  return line.compare(0, std::strlen(prefix), prefix) == 0;
}

// Calls `visit` for each line of `text[0, length)`, a line ending before its
// LF (a CR stays part of it; a last line without LF counts too); stops when
// `visit` returns true. Returns whether a visit stopped it.
bool forEachLine(char const* text, int length,
                 std::function<bool(std::string const&)> const& visit) {
  int begin = 0;
  while (begin < length) {
    int end = begin;
    while (end < length && text[end] != '\n') ++end;
    if (visit(std::string(text + begin, static_cast<size_t>(end - begin)))) return true;
    begin = end + 1;
  }
  return false;
}

}  // namespace

void MethodRequest::resetHeaders() {
  util::SyncGuard guard(*this);
  std::memset(headerBuffer, 0, sizeof(headerBuffer));
  headerLength = 0;
}

size_t MethodRequest::headerCallback(char* data, size_t size, size_t count, void* request) {
  return static_cast<size_t>(
      static_cast<MethodRequest*>(request)->headerContentIn(data, size, count));
}

int MethodRequest::headerContentIn(void* data, unsigned long size, unsigned long count) {
  unsigned long total = size * count;
  if (total == 0) return 0;
  long code = 0;
  if (curl != nullptr) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  CV_LOG(1, "response_code =%d", static_cast<int>(code));
  util::SyncGuard guard(*this);
  // A redirect's own lines are dropped so the final answer starts the block.
  if (code == 301 || code == 302) headerLength = 0;
  // An over-long block is cut, never refused: the transfer goes on.
  unsigned long room = static_cast<unsigned long>(kHeaderCapacity - headerLength);
  unsigned long take = std::min(total, room);
  std::memcpy(headerBuffer + headerLength, data, take);
  headerLength += static_cast<int>(take);
  return static_cast<int>(total);
}

bool MethodRequest::checkFromContentLength() {
  CV_LOG(1, "check content-lenth from response header");
  util::SyncGuard guard(*this);
  bool found = forEachLine(headerBuffer, headerLength, [](std::string const& line) {
    if (beginsWith(line, "Content-Length")) {
      CV_LOG(1, "Content-Length found");
      return true;
    }
    if (beginsWith(line, "content-length") || beginsWith(line, "Content-length")) {
      CV_LOG(1, "Content-length found");
      return true;
    }
    if (beginsWith(line, "CONTENT-LENGTH")) {
      CV_LOG(1, "CONTENT-LENGTH found found");
      return true;
    }
    return false;
  });
  if (!found) CV_LOG(0, "can't find Content-Length");
  return found;
}

bool MethodRequest::seekAbleCheckFromResponse() {
  CV_LOG(0, "check seekable from response header");
  util::SyncGuard guard(*this);
  if (rangeGet.load(std::memory_order_relaxed)) {
    // The block is searched up to its first NUL, bounded by its capacity
    // since a full block has none.
    std::string block(headerBuffer, strnlen(headerBuffer, sizeof(headerBuffer)));
    if (block.find("Content-Range:") == std::string::npos &&
        block.find("CONTENT-RANGE:") == std::string::npos &&
        block.find("content-range:") == std::string::npos) {
      CV_LOG(-4, "Request contains range, but server return no range header");
      return false;
    }
  }
  bool answer = false;
  bool decided = forEachLine(headerBuffer, headerLength, [&](std::string const& raw) {
    std::string line = raw;
    for (char& c : line) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    if (beginsWith(line, "accept-ranges: none")) {
      answer = false;
      return true;
    }
    if (beginsWith(line, "accept-ranges")) {
      CV_LOG(0, "find Accept-range");
      answer = true;
      return true;
    }
    if (beginsWith(line, "access-control-allow-headers") &&
        line.find("range") != std::string::npos) {
      CV_LOG(0, "MethodRequest(%p) support seek", static_cast<void*>(this));
      answer = true;
      return true;
    }
    // No line can begin with both markers, so this branch decides on the
    // first line; kept as the answer players have always been given.
    if (!(beginsWith(line, "org_op=01") && beginsWith(line, "org_op=11"))) {
      CV_LOG(-4, "MethodRequest(%p) dlna support byte seek", static_cast<void*>(this));
      answer = true;
      return true;
    }
    if (beginsWith(line, "content-range")) {
      CV_LOG(0, "find Content-Range");
      answer = true;
      return true;
    }
    return false;
  });
  if (!decided) {
    CV_LOG(0, "can't find Accept-Ranges");
    return false;
  }
  return answer;
}

long long MethodRequest::getSizeFromResponseRange() {
  CV_LOG(0, "get size from range");
  util::SyncGuard guard(*this);
  long long size = 0;
  bool found = forEachLine(headerBuffer, headerLength, [&](std::string const& line) {
    if (!beginsWith(line, "CONTENT-RANGE") && !beginsWith(line, "Content-Range")) return false;
    size_t slash = line.find('/');
    std::string number = slash == std::string::npos ? std::string() : line.substr(slash + 1);
    if (!number.empty() && number.back() == '\r') number.pop_back();
    CV_LOG(0, "The number is:%s", number.c_str());
    size = std::atol(number.c_str());
    return true;
  });
  if (!found) CV_LOG(0, "get size failed");
  return size;
}

void MethodRequest::setSupportSeek(bool support) {
  CV_LOG(0, "set byte support : %d", support ? 1 : 0);
  util::SyncGuard guard(*this);
  supportSeek = support;
}

bool MethodRequest::getSupportSeek() {
  util::SyncGuard guard(*this);
  return supportSeek;
}

std::string MethodRequest::getServerName() {
  util::SyncGuard guard(*this);
  if (serverName.empty()) {
    std::string block(headerBuffer, strnlen(headerBuffer, sizeof(headerBuffer)));
    size_t at = block.find("Server:");
    if (at != std::string::npos && at < static_cast<size_t>(headerLength)) {
      char* value = _copy_header_value(block.c_str() + at);
      if (value != nullptr) {
        serverName = value;
        std::free(value);
        CV_LOG(1, "Server Name:%s", serverName.c_str());
      }
    }
  }
  return serverName;
}

std::string MethodRequest::getContentType() {
  util::SyncGuard guard(*this);
  return contentType;
}

int MethodRequest::getResponseHeader(char* buffer, int size, int* length) {
  util::SyncGuard guard(*this);
  if (length != nullptr) *length = headerLength;
  int copy = std::min(headerLength, size);
  // A negative size, like a null buffer, copies nothing.
  if (copy > 0 && buffer != nullptr) std::memcpy(buffer, headerBuffer, static_cast<size_t>(copy));
  return 0;
}

}  // namespace webs
