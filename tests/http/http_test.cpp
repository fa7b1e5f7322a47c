// What MethodRequest reads from response headers, its address family
// choices and query parameters. Transfers are tested through the C
// interface (tests/source).
#include <cstring>

#include "http/method_request.h"
#include "support/support.h"

namespace testsupport {
namespace {

// Header lines fed as libcurl feeds them (no transfer: the code reads 0).
void feed(webs::MethodRequest& m, const std::vector<std::string>& lines) {
  for (const auto& line : lines) {
    std::string withEnd = line + "\r\n";
    EXPECT_EQ(m.headerContentIn(&withEnd[0], 1, withEnd.size()), static_cast<int>(withEnd.size()));
  }
}

TEST(MethodRequest, WhatHeadersSay) {
  const struct {
    std::vector<std::string> lines;
    bool length, seekable;
    long long rangeSize;
    std::string server;
  } cases[] = {
      {{"HTTP/1.1 200 OK", "Content-Length: 10", "Accept-Ranges: none"}, true, true, 0, ""},
      {{"HTTP/1.1 200 OK", "content-length: 10", "Server: Corvane/1 \t  "}, true, true, 0, "Corvane/1"},
      {{"HTTP/1.1 200 OK", "CONTENT-LENGTH: 10", "server: lower"}, true, true, 0, ""},
      {{"HTTP/1.1 200 OK", "content-Length: 10"}, false, true, 0, ""},
      {{"Accept-Ranges: none", "Content-length: 4"}, true, false, 0, ""},
      {{"ACCEPT-RANGES: bytes", "X-Content-Length: 10"}, false, true, 0, ""},
      {{"Accept-Ranges: bytes"}, false, true, 0, ""},
      {{"Access-Control-Allow-Headers: Origin, Range"}, false, true, 0, ""},
      {{"HTTP/1.1 206 Partial Content", "Content-Range: bytes 0-99/1000"}, false, true, 1000, ""},
      {{"HTTP/1.1 206 Partial Content", "CONTENT-RANGE: bytes */1000"}, false, true, 1000, ""},
      {{"HTTP/1.1 206 Partial Content", "content-range: bytes 0-99/1000"}, false, true, 0, ""},
      {{"Content-Range: bytes 0-99/12345678901x"}, false, true, 12345678901LL, ""},
      {{}, false, false, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines.empty() ? "empty" : c.lines.back());
    webs::MethodRequest m;
    feed(m, c.lines);
    EXPECT_EQ(m.checkFromContentLength(), c.length);
    EXPECT_EQ(m.seekAbleCheckFromResponse(), c.seekable);
    EXPECT_EQ(m.getSizeFromResponseRange(), c.rangeSize);
    EXPECT_EQ(m.getServerName(), c.server);
  }
  webs::MethodRequest m;
  feed(m, {"HTTP/1.1 200 OK"});
  char buf[8];
  std::memset(buf, '#', sizeof(buf));
  int length = -1;
  EXPECT_EQ(m.getResponseHeader(buf, 4, &length), 0);
  EXPECT_EQ(length, 17);
  EXPECT_EQ(std::string(buf, 8), "HTTP####");
}

TEST(MethodRequest, IpFamily) {
  LogCapture log(0);
  webs::MethodRequest m;
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  const std::tuple<const char*, int, const char*> texts[] = {{"IPv6", CURL_IPRESOLVE_V6, "set IPv6"},
                                                             {"IPv4", CURL_IPRESOLVE_V4, "set IPv4"},
                                                             {"whatever", CURL_IPRESOLVE_WHATEVER, "set WHATEVER"},
                                                             {"ipv6", CURL_IPRESOLVE_WHATEVER, "IpType is invalid (ipv6)"}};
  for (auto [text, type, line] : texts) {
    m.setIpResolve(text);
    EXPECT_EQ(m.getIpType(), type) << text;  // an invalid text changes nothing
    EXPECT_TRUE(log.contains(line)) << line;
  }
  // From "whatever": no swap gives IPv6, a swap IPv4, a swap of IPv4 IPv6.
  const std::pair<bool, int> swaps[] = {
      {false, CURL_IPRESOLVE_V6}, {true, CURL_IPRESOLVE_V4}, {false, CURL_IPRESOLVE_V4}, {true, CURL_IPRESOLVE_V6}};
  for (auto [swap, type] : swaps) {
    m.changeIptype(swap);
    EXPECT_EQ(m.getIpType(), type);
  }
}

// Parameters are escaped onto the URL; cleared records go back to the pool.
TEST(MethodRequest, QueryParameters) {
  webs::MethodRequest m;
  m.pushParam("token", "a b&c");
  m.pushParam("id", "7");
  EXPECT_EQ(m.buildParam2URL("http://h/f"), "http://h/f?token=a%20b%26c&id=7");
  EXPECT_EQ(m.buildParam2URL("http://h/f?x=1"), "http://h/f?x=1&token=a%20b%26c&id=7");
  int spare = webs::MethodParamStation::_INS_.freeCount();
  m.clearParams();
  EXPECT_EQ(webs::MethodParamStation::_INS_.freeCount(), spare + 2);
  EXPECT_EQ(m.buildParam2URL("http://h/f"), "http://h/f");
}

}  // namespace
}  // namespace testsupport
