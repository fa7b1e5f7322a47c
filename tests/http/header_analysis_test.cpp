// What MethodRequest learns from response headers: the raw block kept (with
// redirects and the size cap), length spellings, seekability, the size from
// Content-Range and the server name.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/collecting_requestor.h"
#include "http/header_value.h"
#include "http/method_request.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"

using testsupport::CollectingRequestor;
using testsupport::firstPatternMismatch;
using testsupport::HeaderCase;
using testsupport::LogCapture;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

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

struct Fetched {
  CollectingRequestor requestor;
  webs::MethodRequest method;
  int result;
  Fetched(const std::string& url, long long from) {
    method.initialize(&requestor, "");
    result = method.executeGet(url, from, 0, 1);
  }
};

TEST(HeaderBlock, Redirect302DropsItsLinesButSeeOtherAndTemporaryKeepThem) {
  struct Case {
    int status;
    bool redirectLinesKept;
  };
  for (Case c : {Case{302, false}, Case{301, false}, Case{303, true}, Case{307, true}}) {
    ScriptedHttpServer server;
    Script redirect;
    redirect.status = c.status;
    redirect.location = "/final";
    server.route("/start", redirect);
    Script final;
    final.size = 3000;
    server.route("/final", final);
    Fetched f(server.url("/start"), 0);
    ASSERT_EQ(f.result, 0) << c.status;
    EXPECT_EQ(f.requestor.received(), 3000) << c.status;
    std::string block = headerBlock(f.method);
    bool hasRedirect = block.find("Location: /final") != std::string::npos;
    EXPECT_EQ(hasRedirect, c.redirectLinesKept) << c.status << "\n" << block;
    size_t finalAt = block.find("HTTP/1.1 206 Partial Content\r\n");
    ASSERT_NE(finalAt, std::string::npos) << c.status;
    if (!c.redirectLinesKept) {
      // Only the final answer: at most the redirect's closing blank line
      // (delivered while its code still reads 30x) precedes it.
      EXPECT_LE(finalAt, 2u) << c.status;
    }
  }
}

TEST(HeaderBlock, OverlongBlockIsCutAt8192AndTheTransferGoesOn) {
  Script s;
  s.size = 50000;
  s.longHeaderBytes = 12000;
  ScriptedHttpServer server(s);
  Fetched f(server.url(), 0);
  EXPECT_EQ(f.result, 0);
  std::string body = f.requestor.bytes();
  ASSERT_EQ(body.size(), 50000u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, 50000), -1);
  std::string block = headerBlock(f.method);
  EXPECT_EQ(block.size(), 8192u);
  EXPECT_EQ(block.compare(0, 15, "HTTP/1.1 206 Pa"), 0);
}

TEST(HeaderBlock, GetResponseHeaderCopiesAtMostSizeAndNoTerminator) {
  webs::MethodRequest m;
  feed(m, {"HTTP/1.1 200 OK"});
  char buf[8];
  std::memset(buf, '#', sizeof(buf));
  int length = -1;
  EXPECT_EQ(m.getResponseHeader(buf, 4, &length), 0);
  EXPECT_EQ(length, 17);
  EXPECT_EQ(std::string(buf, 8), "HTTP####");
  length = -1;
  EXPECT_EQ(m.getResponseHeader(buf, -5, &length), 0);
  EXPECT_EQ(length, 17);
  EXPECT_EQ(std::string(buf, 8), "HTTP####");
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
  };
  for (const Case& c : cases) {
    webs::MethodRequest m;
    feed(m, c.lines);
    LogCapture log(0);
    EXPECT_EQ(m.seekAbleCheckFromResponse(), c.seekable) << c.lines[0];
    if (c.log != nullptr) {
      bool logged = false;
      for (const auto& t : log.texts()) logged = logged || t.find(c.log) != std::string::npos;
      EXPECT_TRUE(logged) << c.lines[0];
    }
  }
}

TEST(SeekCheck, EmptyBlockIsNotSeekable) {
  webs::MethodRequest m;
  LogCapture log(0);
  EXPECT_FALSE(m.seekAbleCheckFromResponse());
  EXPECT_TRUE(log.contains("can't find Accept-Ranges"));
}

TEST(SeekCheck, RangeRequestAnsweredWithoutContentRangeIsNotSeekable) {
  struct Case {
    bool honourRange;
    HeaderCase spelling;
    bool seekable;
  };
  for (Case c : {Case{false, HeaderCase::Canonical, false}, Case{true, HeaderCase::Canonical, true},
                 Case{true, HeaderCase::Lower, true}, Case{true, HeaderCase::Upper, true}}) {
    Script s;
    s.size = 4000;
    s.honourRange = c.honourRange;
    s.headerCase = c.spelling;
    ScriptedHttpServer server(s);
    LogCapture log(-4);
    Fetched f(server.url(), 100);
    ASSERT_EQ(f.result, 0);
    ASSERT_TRUE(f.method.isRangeGet());
    EXPECT_EQ(f.method.seekAbleCheckFromResponse(), c.seekable);
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

TEST(ContentRangeSize, FromARealContentRangeOnlyAnswer) {
  Script s;
  s.size = 777777;
  s.contentLength = false;
  ScriptedHttpServer server(s);
  Fetched f(server.url(), 700000);
  ASSERT_EQ(f.result, 0);
  EXPECT_EQ(f.requestor.received(), 77777);
  EXPECT_EQ(f.method.getSizeFromResponseRange(), 777777);
  EXPECT_FALSE(f.method.checkFromContentLength());
}

TEST(ServerName, TrailingBlanksAreTrimmedAndTheNameIsKept) {
  Script s;
  s.size = 100;
  s.serverHeader = "CorvaneTest/1.0 \t  ";
  ScriptedHttpServer server(s);
  Fetched f(server.url(), 0);
  ASSERT_EQ(f.result, 0);
  LogCapture log(1);
  EXPECT_EQ(f.method.getServerName(), "CorvaneTest/1.0");
  EXPECT_TRUE(log.contains("Server Name:CorvaneTest/1.0"));
  log.clear();
  EXPECT_EQ(f.method.getServerName(), "CorvaneTest/1.0");
  EXPECT_FALSE(log.contains("Server Name:CorvaneTest/1.0"));  // not scanned again
  EXPECT_EQ(f.method.getContentType(), "application/octet-stream");
}

TEST(ServerName, MissingHeaderGivesEmptyName) {
  webs::MethodRequest m;
  feed(m, {"HTTP/1.1 200 OK", "server: lower-case-is-not-matched"});
  EXPECT_EQ(m.getServerName(), "");
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
