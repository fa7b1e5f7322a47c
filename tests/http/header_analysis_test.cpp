// What MethodRequest learns from response headers: the raw block kept (with
// redirects and the size cap), length spellings, seekability, the size from
// Content-Range and the server name.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/header_value.h"
#include "http/transfer_harness.h"
#include "support/log_capture.h"

namespace testsupport {
namespace {

// Feeds header lines through the header callback, as libcurl does (with no
// transfer running the response code reads 0).
void feed(webs::MethodRequest& m, const std::vector<std::string>& lines) {
  for (const auto& line : lines) {
    std::string withEnd = line + "\r\n";
    EXPECT_EQ(m.headerContentIn(&withEnd[0], 1, withEnd.size()), static_cast<int>(withEnd.size()));
  }
}

std::string headerBlock(webs::MethodRequest& m) {
  int length = 0;
  m.getResponseHeader(nullptr, 0, &length);
  std::string block(static_cast<size_t>(length), '\0');
  m.getResponseHeader(&block[0], length, &length);
  return block;
}

TEST(HeaderBlock, Redirect302DropsItsLinesButSeeOtherAndTemporaryKeepThem) {
  for (auto [status, redirectLinesKept] :
       {std::pair<int, bool>{302, false}, {301, false}, {303, true}, {307, true}}) {
    ScriptedHttpServer server;
    Script redirect;
    redirect.status = status;
    redirect.location = "/final";
    server.route("/start", redirect);
    server.route("/final", sized(3000));
    Transfer t;
    ASSERT_EQ(t.get(server.url("/start")), 0) << status;
    EXPECT_EQ(t.requestor.received(), 3000) << status;
    std::string block = headerBlock(t.method);
    bool hasRedirect = block.find("Location: /final") != std::string::npos;
    EXPECT_EQ(hasRedirect, redirectLinesKept) << status << "\n" << block;
    size_t finalAt = block.find("HTTP/1.1 206 Partial Content\r\n");
    ASSERT_NE(finalAt, std::string::npos) << status;
    // Only the final answer: at most the redirect's closing blank line
    // (delivered while its code still reads 30x) precedes it.
    if (!redirectLinesKept) { EXPECT_LE(finalAt, 2u) << status; }
  }
}

TEST(HeaderBlock, OverlongBlockIsCutAt8192AndTheTransferGoesOn) {
  Script s = sized(50000);
  s.longHeaderBytes = 12000;
  ScriptedHttpServer server(s);
  Transfer t;
  EXPECT_EQ(t.get(server.url()), 0);
  EXPECT_TRUE(isPatternAt(t.requestor.bytes(), 0, 50000));
  std::string block = headerBlock(t.method);
  EXPECT_EQ(block.size(), 8192u);
  EXPECT_EQ(block.compare(0, 15, "HTTP/1.1 206 Pa"), 0);
}

TEST(HeaderBlock, GetResponseHeaderCopiesAtMostSizeAndNoTerminator) {
  webs::MethodRequest m;
  feed(m, {"HTTP/1.1 200 OK"});
  char buf[8];
  std::memset(buf, '#', sizeof(buf));
  for (int size : {4, -5}) {
    int length = -1;
    EXPECT_EQ(m.getResponseHeader(buf, size, &length), 0);
    EXPECT_EQ(length, 17);
    EXPECT_EQ(std::string(buf, 8), "HTTP####");
  }
}

TEST(ContentLengthCheck, OnlyFourSpellingsCount) {
  struct Case {
    const char* line;
    bool found;
    const char* log;
  };
  const Case cases[] = {
      {"Content-Length: 10", true, "Content-Length found"},
      {"content-length: 10", true, "Content-length found"},
      {"Content-length: 10", true, "Content-length found"},
      {"CONTENT-LENGTH: 10", true, "CONTENT-LENGTH found found"},
      {"content-Length: 10", false, "can't find Content-Length"},
      {"CONTENT-length: 10", false, "can't find Content-Length"},
      {"X-Content-Length: 10", false, "can't find Content-Length"},
  };
  for (const Case& c : cases) {
    webs::MethodRequest m;
    feed(m, {"HTTP/1.1 200 OK", c.line, ""});
    LogCapture log(1);
    EXPECT_EQ(m.checkFromContentLength(), c.found) << c.line;
    EXPECT_TRUE(log.contains(c.log)) << c.line;
  }
}

TEST(SeekCheck, FirstLineDecides) {
  struct Case {
    std::vector<std::string> lines;
    bool seekable;
    const char* log;  // nullptr: no decision log expected
  };
  const std::vector<Case> cases = {
      {{"HTTP/1.1 200 OK", "Accept-Ranges: none"}, true, "dlna support byte seek"},
      {{"Accept-Ranges: none", "Content-Length: 4"}, false, nullptr},
      {{"ACCEPT-RANGES: bytes"}, true, "find Accept-range"},
      {{"Access-Control-Allow-Headers: Origin, Range"}, true, "support seek"},
      {{"Access-Control-Allow-Headers: Origin"}, true, "dlna support byte seek"},
      {{}, false, "can't find Accept-Ranges"},  // an empty block
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    webs::MethodRequest m;
    feed(m, cases[i].lines);
    LogCapture log(0);
    EXPECT_EQ(m.seekAbleCheckFromResponse(), cases[i].seekable) << "case " << i;
    const char* line = cases[i].log;
    if (line != nullptr) { EXPECT_GE(log.countContaining(line), 1) << "case " << i; }
  }
}

TEST(SeekCheck, RangeRequestAnsweredWithoutContentRangeIsNotSeekable) {
  struct Case {
    bool honourRange;
    HeaderCase spelling;
    bool seekable;
  };
  for (Case c : {Case{false, HeaderCase::Canonical, false}, Case{true, HeaderCase::Canonical, true},
                 Case{true, HeaderCase::Lower, true}, Case{true, HeaderCase::Upper, true}}) {
    Script s = sized(4000);
    s.honourRange = c.honourRange;
    s.headerCase = c.spelling;
    ScriptedHttpServer server(s);
    LogCapture log(-4);
    Transfer t;
    ASSERT_EQ(t.get(server.url(), 100), 0);
    ASSERT_TRUE(t.method.isRangeGet());
    EXPECT_EQ(t.method.seekAbleCheckFromResponse(), c.seekable);
    EXPECT_EQ(log.contains("Request contains range, but server return no range header"),
              !c.seekable);
  }
}

TEST(ContentRangeSize, TwoSpellingsAndAtol) {
  struct Case {
    std::vector<std::string> lines;
    long long size;
    bool failed;
  };
  const std::vector<Case> cases = {
      {{"HTTP/1.1 206 Partial Content", "Content-Range: bytes 0-99/1000"}, 1000, false},
      {{"HTTP/1.1 206 Partial Content", "CONTENT-RANGE: bytes */1000"}, 1000, false},
      {{"HTTP/1.1 206 Partial Content", "content-range: bytes 0-99/1000"}, 0, true},
      {{"Content-Range: bytes 0-99/*"}, 0, false},
      {{"Content-Range: bytes 0-99/12345678901x"}, 12345678901LL, false},
      {{"Content-Type: text/plain", "Content-Length: 5"}, 0, true},
  };
  for (const Case& c : cases) {
    webs::MethodRequest m;
    feed(m, c.lines);
    LogCapture log(0);
    EXPECT_EQ(m.getSizeFromResponseRange(), c.size) << c.lines.back();
    EXPECT_EQ(log.contains("get size failed"), c.failed) << c.lines.back();
  }
}

TEST(ServerName, TrailingBlanksAreTrimmedAndTheNameIsKept) {
  Script s = sized(100);
  s.serverHeader = "CorvaneTest/1.0 \t  ";
  ScriptedHttpServer server(s);
  Transfer t;
  ASSERT_EQ(t.get(server.url()), 0);
  LogCapture log(1);
  EXPECT_EQ(t.method.getServerName(), "CorvaneTest/1.0");
  EXPECT_TRUE(log.contains("Server Name:CorvaneTest/1.0"));
  log.clear();
  EXPECT_EQ(t.method.getServerName(), "CorvaneTest/1.0");
  EXPECT_FALSE(log.contains("Server Name:CorvaneTest/1.0"));  // not scanned again
  EXPECT_EQ(t.method.getContentType(), "application/octet-stream");

  webs::MethodRequest missing;
  feed(missing, {"HTTP/1.1 200 OK", "server: lower-case-is-not-matched"});
  EXPECT_EQ(missing.getServerName(), "");
}

TEST(CopyHeaderValue, ValueBetweenColonAndLineEnd) {
  struct Case {
    const char* line;
    const char* value;
  };
  const Case cases[] = {
      {"Server: nginx\r\nDate: x\r\n", "nginx"},
      {"Server:\t  spaced out  \t\r\n", "spaced out"},
      {"Server: lf only\nNext: y", "lf only"},
      {"Server: to the end  ", "to the end"},
      {"Server:    \r\n", ""},
      {"no colon here", ""},
  };
  for (const Case& c : cases) {
    char* value = webs::_copy_header_value(c.line);
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, c.value) << c.line;
    std::free(value);
  }
}

}  // namespace
}  // namespace testsupport
