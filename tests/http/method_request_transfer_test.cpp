// One GET through MethodRequest against the scripted server: bytes, the
// request on the wire, the range retry and the result codes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "http/collecting_requestor.h"
#include "http/method_request.h"
#include "support/log_capture.h"
#include "support/scripted_http_server.h"

using testsupport::CollectingRequestor;
using testsupport::firstPatternMismatch;
using testsupport::LogCapture;
using testsupport::Script;
using testsupport::ScriptedHttpServer;

namespace {

struct Transfer {
  CollectingRequestor requestor;
  webs::MethodRequest method;
  Transfer() { method.initialize(&requestor, ""); }
};

Script sized(long long size) {
  Script s;
  s.size = size;
  return s;
}

struct RangeCase {
  long long from;
  long long to;
  const char* rangeHeader;
  long long expectedBytes;
};

class RangedGet : public ::testing::TestWithParam<RangeCase> {};

TEST_P(RangedGet, BodyIsTheRequestedPatternRangeAndRangeHeaderIsSent) {
  const RangeCase c = GetParam();
  ScriptedHttpServer server(sized(300000));
  ASSERT_TRUE(server.ok());
  Transfer t;
  EXPECT_EQ(t.method.executeGet(server.url(), c.from, c.to, 7), 0);
  std::string body = t.requestor.bytes();
  ASSERT_EQ(static_cast<long long>(body.size()), c.expectedBytes);
  EXPECT_EQ(firstPatternMismatch(body.data(), c.from, c.expectedBytes), -1);
  for (int v : t.requestor.versions()) EXPECT_EQ(v, 7);
  ASSERT_EQ(server.requestCount(), 1);
  EXPECT_EQ(server.requests()[0].header("Range"), c.rangeHeader);
  EXPECT_TRUE(t.method.isRangeGet());
  if (c.to == 0) {
    EXPECT_EQ(t.method.getFileSize(), c.from + c.expectedBytes);
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, RangedGet,
                         ::testing::Values(RangeCase{0, 0, "bytes=0-", 300000},
                                           RangeCase{12345, 0, "bytes=12345-", 300000 - 12345},
                                           RangeCase{1000, 99999, "bytes=1000-99999", 99000},
                                           RangeCase{299999, 0, "bytes=299999-", 1}),
                         [](const ::testing::TestParamInfo<RangeCase>& p) {
                           return "From" + std::to_string(p.param.from) + "To" +
                                  std::to_string(p.param.to);
                         });

TEST(MethodRequestTransfer, DefaultRequestCarriesUserAgentAndNoCache) {
  ScriptedHttpServer server(sized(1000));
  Transfer t;
  ASSERT_EQ(t.method.executeGet(server.url(), 0, 0, 1), 0);
  auto r = server.requests().at(0);
  EXPECT_EQ(r.method, "GET");
  EXPECT_EQ(r.target, "/file");
  EXPECT_EQ(r.header("User-Agent"), "curl/7.19.5");
  EXPECT_EQ(r.header("Pragma"), "no-cache");
  EXPECT_FALSE(r.hasHeader("Cookie"));
  EXPECT_NE(r.requestLine.find("HTTP/1.1"), std::string::npos);
}

TEST(MethodRequestTransfer, UserAgentCookieAndParamsReachTheWire) {
  ScriptedHttpServer server(sized(1000));
  Transfer t;
  t.method.setUserAgent("CorvanePlayer/2.0");
  t.method.setCookie("session=abc; theme=dark");
  t.method.pushParam("token", "a b&c");
  t.method.pushParam("id", "7");
  ASSERT_EQ(t.method.executeGet(server.url(), 0, 0, 1), 0);
  auto r = server.requests().at(0);
  EXPECT_EQ(r.header("User-Agent"), "CorvanePlayer/2.0");
  EXPECT_EQ(r.header("Cookie"), "session=abc; theme=dark");
  EXPECT_EQ(r.target, "/file?token=a%20b%26c&id=7");
  EXPECT_EQ(t.requestor.received(), 1000);
}

TEST(MethodRequestTransfer, ProxyTargetSeesAbsoluteFormRequest) {
  ScriptedHttpServer proxy(sized(5000));
  Transfer t;
  t.method.setProxy("127.0.0.1:" + std::to_string(proxy.port()));
  // The origin name is never resolved: the proxy is asked for it.
  ASSERT_EQ(t.method.executeGet("http://origin.corvane.invalid/file", 100, 0, 1), 0);
  ASSERT_EQ(proxy.requestCount(), 1);
  auto r = proxy.requests()[0];
  EXPECT_EQ(r.target, "http://origin.corvane.invalid/file");
  EXPECT_EQ(r.header("Range"), "bytes=100-");
  std::string body = t.requestor.bytes();
  ASSERT_EQ(body.size(), 4900u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 100, 4900), -1);
}

TEST(MethodRequestTransfer, RangeAnsweredWith416IsRetriedOnceWithoutRange) {
  Script s = sized(40000);
  s.rangeStatus = 416;
  ScriptedHttpServer server(s);
  LogCapture log(0);
  Transfer t;
  EXPECT_EQ(t.method.executeGet(server.url(), 5000, 0, 1), 0);
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].header("Range"), "bytes=5000-");
  EXPECT_FALSE(requests[1].hasHeader("Range"));
  EXPECT_TRUE(log.contains("the range request is not supported by server, i4_retry = 0\n"));
  EXPECT_FALSE(t.method.isRangeGet());
  // The whole content arrives from offset 0: the caller skips what it needs.
  std::string body = t.requestor.bytes();
  ASSERT_EQ(body.size(), 40000u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, 40000), -1);
}

TEST(MethodRequestTransfer, HbbtvUrlsSendNoRangeAndAreNotRetried) {
  for (const char* path : {"/hbbtv/app.ts", "/HBBTV/app.ts"}) {
    Script s;
    s.status = 416;
    ScriptedHttpServer server;
    server.route(path, s);
    Transfer t;
    EXPECT_EQ(t.method.executeGet(server.url(path), 300, 0, 1), 416) << path;
    ASSERT_EQ(server.requestCount(), 1) << path;
    EXPECT_FALSE(server.requests()[0].hasHeader("Range")) << path;
    EXPECT_FALSE(t.method.isRangeGet()) << path;
  }
}

TEST(MethodRequestTransfer, ResultFollowsTheStatusCode) {
  struct Case {
    int status;
    long long size;
    bool honourRange;
    int expected;
    const char* log;
  };
  const Case cases[] = {
      {404, 0, true, 404, nullptr},
      {503, 0, true, 503, nullptr},
      {0, 0, false, 404, "error, file size is 0"},  // empty 200
  };
  for (const Case& c : cases) {
    Script s = sized(c.size);
    s.status = c.status;
    s.body = c.status != 0 ? "<html>error page</html>" : "";
    s.honourRange = c.honourRange;
    ScriptedHttpServer server(s);
    LogCapture log(0);
    Transfer t;
    EXPECT_EQ(t.method.executeGet(server.url(), 0, 0, 1), c.expected) << c.status;
    if (c.log != nullptr) {
      EXPECT_TRUE(log.contains(c.log));
    }
  }
}

TEST(MethodRequestTransfer, IcyStatusLineIsTakenAsOk) {
  Script s = sized(20000);
  s.statusLine = "ICY 200 OK";
  s.honourRange = false;
  ScriptedHttpServer server(s);
  Transfer t;
  EXPECT_EQ(t.method.executeGet(server.url(), 0, 0, 1), 0);
  std::string body = t.requestor.bytes();
  ASSERT_EQ(body.size(), 20000u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 0, 20000), -1);
}

TEST(MethodRequestTransfer, RefusedConnectionGivesConnectErrorWithSocketErrno) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  int port = ntohs(addr.sin_port);
  close(fd);  // nothing listens there now
  Transfer t;
  EXPECT_EQ(t.method.executeGet("http://127.0.0.1:" + std::to_string(port) + "/x", 0, 0, 1),
            CURLE_COULDNT_CONNECT);
  EXPECT_EQ(t.method.getErrno(), 111);
  EXPECT_EQ(t.requestor.received(), 0);
}

TEST(MethodRequestTransfer, DroppedConnectionEndsAsPartialFileAfterExactBytes) {
  Script s = sized(500000);
  s.dropAfter = 100000;
  ScriptedHttpServer server(s);
  Transfer t;
  EXPECT_EQ(t.method.executeGet(server.url(), 1000, 0, 1), CURLE_PARTIAL_FILE);
  std::string body = t.requestor.bytes();
  ASSERT_EQ(body.size(), 100000u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 1000, 100000), -1);
}

TEST(MethodRequestTransfer, RefusedChunkEndsWithWriteError) {
  ScriptedHttpServer server(sized(100000));
  Transfer t;
  t.requestor.refuse(true);
  EXPECT_EQ(t.method.executeGet(server.url(), 0, 0, 1), CURLE_WRITE_ERROR);
  EXPECT_EQ(t.requestor.chunks(), 1);
}

TEST(MethodRequestTransfer, PeerAddressIsReportedAndNullBufferRefused) {
  ScriptedHttpServer server(sized(100));
  LogCapture log(0);
  Transfer t;
  EXPECT_EQ(t.method.getUrlIP(nullptr), -1);
  EXPECT_TRUE(log.contains("Error, input ip_buf shouldn't be NULL"));
  ASSERT_EQ(t.method.executeGet(server.url(), 0, 0, 1), 0);
  char ip[64] = {0};
  EXPECT_EQ(t.method.getUrlIP(ip), 0);
  EXPECT_STREQ(ip, "127.0.0.1");
  EXPECT_TRUE(log.contains("URL IP: 127.0.0.1\n"));
}

TEST(MethodRequestTransfer, IPv6ResolveReachesLoopbackV6) {
  ScriptedHttpServer server(sized(70000), /*ipv6=*/true);
  if (!server.ok()) GTEST_SKIP() << "no IPv6 loopback here";
  Transfer t;
  t.method.setIpResolve("IPv6");
  EXPECT_EQ(t.method.executeGet(server.url(), 10, 0, 1), 0);
  std::string body = t.requestor.bytes();
  ASSERT_EQ(body.size(), 69990u);
  EXPECT_EQ(firstPatternMismatch(body.data(), 10, 69990), -1);
  char ip[64] = {0};
  t.method.getUrlIP(ip);
  EXPECT_STREQ(ip, "::1");
}

TEST(MethodRequestTransfer, IPv4OnlyCannotReachAnIPv6OnlyServer) {
  ScriptedHttpServer server(sized(100), /*ipv6=*/true);
  if (!server.ok()) GTEST_SKIP() << "no IPv6 loopback here";
  Transfer t;  // the handle starts as IPv4 only
  EXPECT_NE(t.method.executeGet(server.url(), 0, 0, 1), 0);
  EXPECT_EQ(server.requestCount(), 0);
}

TEST(MethodRequestIpFamily, SetIpResolveAndChangeIptype) {
  LogCapture log(0);
  webs::MethodRequest m;
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  struct Case {
    const char* text;
    int expected;
    const char* line;
  };
  const Case cases[] = {{"IPv6", CURL_IPRESOLVE_V6, "set IPv6"},
                        {"IPv4", CURL_IPRESOLVE_V4, "set IPv4"},
                        {"whatever", CURL_IPRESOLVE_WHATEVER, "set WHATEVER"},
                        {"ipv6", CURL_IPRESOLVE_WHATEVER, "IpType is invalid (ipv6)"}};
  for (const Case& c : cases) {
    log.clear();
    m.setIpResolve(c.text);
    EXPECT_EQ(m.getIpType(), c.expected) << c.text;
    EXPECT_TRUE(log.contains(c.line)) << c.text;
  }
  // From "whatever": no swap gives IPv6, a swap IPv4, a swap of IPv4 IPv6.
  m.changeIptype(false);
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V6);
  m.changeIptype(true);
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  m.changeIptype(false);
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V4);
  m.changeIptype(true);
  EXPECT_EQ(m.getIpType(), CURL_IPRESOLVE_V6);
}

TEST(MethodRequestTransfer, ParamRecordsReturnToTheStation) {
  int before = webs::MethodParamStation::_INS_.freeCount();
  {
    webs::MethodRequest m;
    m.pushParam("a", "1");
    m.pushParam("b", "2");
    EXPECT_EQ(m.buildUrl("http://h/p?x=1"), "http://h/p?x=1&a=1&b=2");
  }
  // The two records come from the free list when it has them, and go back.
  EXPECT_EQ(webs::MethodParamStation::_INS_.freeCount(), std::max(before, 2));
}

}  // namespace

namespace {

// Records the response code seen from inside the body callback.
class CodeRecorder : public testsupport::CollectingRequestor {
 public:
  webs::MethodRequest* method = nullptr;
  std::atomic<long> firstCode{-1};
  int receive(void* data, int size, void* curl, int version) override {
    long expected = -1;
    firstCode.compare_exchange_strong(expected, method->getResponseCode());
    return CollectingRequestor::receive(data, size, curl, version);
  }
};

TEST(MethodRequestTransfer, ResponseCodeIsReadableFromTheBodyCallback) {
  struct Case {
    bool honourRange;
    long code;
  };
  for (Case c : {Case{true, 206}, Case{false, 200}}) {
    Script s = sized(1000);
    s.honourRange = c.honourRange;
    ScriptedHttpServer server(s);
    CodeRecorder recorder;
    webs::MethodRequest m;
    recorder.method = &m;
    m.initialize(&recorder, "");
    EXPECT_EQ(m.executeGet(server.url(), 10, 0, 1), webs::kTransferOk);
    EXPECT_EQ(recorder.firstCode.load(), c.code);
  }
}

}  // namespace
