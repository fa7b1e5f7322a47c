// HTTP locations through the C interface against the scripted server:
// what servers answer (sizes, ranges, drops), where each connection starts,
// failures as read codes and download statuses, stalls and silences, and
// the options and answers a caller sets and reads.
#include <atomic>
#include <cstring>
#include <thread>

#include "corvane/smart_file.h"
#include "support/scripted_http_server.h"

namespace testsupport {
namespace {

TEST(HttpSource, ServersAnswersAndDropsGiveEveryByteFromBoundedConnections) {
  const long long mib = 1 << 20;
  std::vector<long long> every100KiB;
  for (long long at = 0; at < mib; at += 102400) every100KiB.push_back(at);
  Script noTotal(2 * mib + 4321);
  noTotal.unknownTotal = true;
  Script noLength(2 * mib + 4321, false);
  noLength.contentLength = false;
  Script icy(300000, false);
  icy.statusLine = "ICY 200 OK";
  const struct {
    const char* name;
    Script s;
    long long total;
    bool completes;
    std::vector<long long> starts;  // empty: at most one per drop and a few spare
  } cases[] = {
      {"plain", Script(mib), mib, true, {0}},
      {"ranges ignored", Script(2 * mib + 4321, false), 2 * mib + 4321, true, {0}},
      {"no length", noLength, 2 * mib + 4321, true, {0}},
      {"total unknown", noTotal, 2 * mib + 4321, true, {0}},
      {"icy", icy, 300000, true, {0}},
      {"drops every 100 KiB", Script(mib, true, {102400}), mib, true, every100KiB},
      {"headers then drop", Script(mib, true, {0, -1}), mib, true, {0, 0}},
      {"drop at once mid-file", Script(mib, true, {300000, 0, -1}), mib, true, {0, 300000, 300000}},
      {"always drops at once mid-file", Script(mib, true, {300000, 0}), mib, false, {}},
      {"no ranges, two drops", Script(5 * mib, false, {200000, 200000, -1}), 240000, true, {}},
      {"no ranges, drops past the buffer", Script(3 * mib, false, {700000, 700000, 700000, -1}),
       3 * mib, true, {}},
      {"no ranges, never gets there", Script(mib, false, {200000}), 300000, false, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedHttpServer server(c.s);
    Handle h(server.url());
    ASSERT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);
    int code = 0;
    std::string bytes = readBytes(h.id, c.total, 60000, &code);
    EXPECT_TRUE(isPatternAt(bytes, 0, static_cast<long long>(bytes.size())));
    if (c.completes) {
      EXPECT_EQ(static_cast<long long>(bytes.size()), c.total) << code;
      EXPECT_EQ(x_smart_file_size(h.id), c.s.size);
      char extra[16];
      unsigned long got = 7;
      if (c.total == c.s.size) EXPECT_EQ(x_smart_file_read(h.id, extra, 16, &got), SMFR_EOF);
      if (c.starts.empty()) EXPECT_LE(server.requestCount(), static_cast<int>(c.s.dropPlan.size()) + 4);
    } else {
      EXPECT_LT(static_cast<long long>(bytes.size()), c.total);
      EXPECT_TRUE(code != SMFR_OK && code != SMFR_EOF) << code;
      EXPECT_LE(server.requestCount(), 10);
    }
    if (!c.starts.empty()) EXPECT_EQ(server.rangeStarts(), c.starts);
  }
}

TEST(HttpSource, FailingLocationsGiveTheirCodeStatusAndEvent) {
  ScriptedHttpServer server;
  Script s;
  s.body = "no such thing";
  s.status = 404;
  server.route("/404", s);
  s.status = 503;
  server.route("/503", s);
  server.route("/empty", Script(0, false));
  Script weird;
  weird.statusLine = "HTTP/9 ???";
  server.route("/weird", weird);
  const std::string unresolvable = "http://no-such-host.invalid/file";
  const struct {
    std::string url;
    int flag, downloadStatus, event, code;
  } cases[] = {
      {server.url("/404"), -1, 404, 5, SMFR_NOT_FOUND},
      {server.url("/503"), -1, 503, 6, SMFR_NOT_AVAILABLE},
      {server.url("/empty"), -1, 404, 5, SMFR_NOT_FOUND},  // an answer without a body
      {server.url("/weird"), -1, 0, 1, SMFR_FAILED},  // a failure of no kind of its own
      {unresolvable, -1, -6, 5, SMFR_NOT_FOUND},
      {unresolvable, 1, -6, 1, SMFR_FAILED},  // retried once first
      {"http://127.0.0.1:" + std::to_string(freePort()) + "/f", -1, -8, 5, SMFR_NOT_FOUND},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url + " flag " + std::to_string(c.flag));
    LogCapture log(0);
    Handle h(c.url);
    if (c.flag != -1) EXPECT_EQ(x_smart_file_set_featureflag(h.id, c.flag), SMFR_OK);
    char buf[100];
    unsigned long got = 7;
    // A failure final before the read looks is answered as a finished stream.
    int first = x_smart_file_read(h.id, buf, sizeof(buf), &got);
    EXPECT_TRUE(first == c.code || first == -1) << first;
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(x_smart_file_http_get_download_status(h.id), c.downloadStatus);
    EXPECT_TRUE(log.contains("stream event " + std::to_string(c.event)));
    EXPECT_EQ(x_smart_file_read(h.id, buf, sizeof(buf), &got), -1);
  }
}

// Answers after the first: an error page never reaches the reader, and an
// answer from 0 (no range: an "hbbtv" location, or the retry after a 416) is
// skipped up to the offset wanted; after a seek and after a drop.
TEST(HttpSource, LaterAnswersGiveOnlyContentAtItsOffset) {
  const long long kDrop = 300000, kSeekTo = 3 << 20;
  const struct {
    const char* path;
    int status, rangeStatus;
    bool seek;
    int code;
    bool lastRanged;
  } cases[] = {
      {"/f", 503, 0, false, SMFR_NOT_AVAILABLE, true}, {"/f", 404, 0, true, SMFR_NOT_FOUND, true},
      {"/f", 0, 416, false, SMFR_OK, false},           {"/f", 0, 416, true, SMFR_OK, false},
      {"/hbbtv/f", 0, 0, false, SMFR_OK, false},       {"/HBBTV/f", 0, 0, true, SMFR_OK, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.status + c.rangeStatus) +
                 (c.seek ? " seek" : " drop"));
    Script s(4 << 20, true, c.seek ? std::vector<long long>{} : std::vector<long long>{kDrop, -1});
    auto later = std::make_shared<Script>(Script(s.size));
    later->status = c.status;
    later->body = std::string(5000, 'E');
    later->rangeStatus = c.rangeStatus;
    s.after = later;
    ScriptedHttpServer server(s);
    Handle h(server.url(c.path));
    int code = 0;
    long long at = 0, want = 1 << 20;
    if (c.seek) {
      ASSERT_TRUE(isPatternAt(readBytes(h.id, 100000, 50000, &code), 0, 100000));
      long long cur = -1;
      ASSERT_EQ(x_smart_file_seek(h.id, kSeekTo, &cur), SMFR_OK);
      at = kSeekTo;
      want = 200000;
    }
    std::string bytes = readBytes(h.id, want, 50000, &code);
    EXPECT_TRUE(isPatternAt(bytes, at, static_cast<long long>(bytes.size())));
    EXPECT_TRUE(code == c.code || (c.code != SMFR_OK && code == -1)) << code;
    if (c.code == SMFR_OK) {
      EXPECT_EQ(static_cast<long long>(bytes.size()), want);
    } else {
      // What came before the failure was read or is still held, no more. A
      // failed read may hand over bytes without moving the position past them.
      EXPECT_EQ(x_smart_file_offset(h.id) - at + x_smart_file_bufferedSize(h.id), c.seek ? 0 : kDrop);
    }
    std::vector<RecordedRequest> requests = server.requests();
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests.back().hasHeader("Range"), c.lastRanged);
  }
}

// With feature flag 1 every stall is cut after about four seconds and the
// next connection goes on from the bytes held.
TEST(HttpSource, StallsAreCutAfterFourSecondsWithFeatureFlagOne) {
  Script s(1 << 20);
  s.stallAfter = 400 << 10;
  s.stallMs = 60000;
  ScriptedHttpServer server(s);
  LogCapture log(-4);
  Handle h(server.url());
  EXPECT_EQ(x_smart_file_set_featureflag(h.id, 1), SMFR_OK);
  auto began = Clock::now();
  int code = 0;
  ASSERT_TRUE(isPatternAt(readBytes(h.id, s.size, 50000, &code), 0, s.size)) << code;
  EXPECT_EQ(log.countContaining("Too long time no data comes, the connection is die"), 2);
  EXPECT_GT(secondsSince(began), 7.5);
  EXPECT_LT(secondsSince(began), 20.0);
  EXPECT_EQ(server.rangeStarts(), (std::vector<long long>{0, 400 << 10, 800 << 10}));
}

// A server that accepts and never answers: the read fails after the
// first-byte limit (35 s), retried once when feature flag 1 makes it a
// time-out. Both run at once.
TEST(HttpSource, SilentServerFailsTheReadAfterTheFirstByteLimit) {
  Script s;
  s.headerDelayMs = 300000;
  ScriptedHttpServer server(s);
  struct Reader {
    std::unique_ptr<Handle> handle;
    std::atomic<int> code{1};
    std::atomic<double> seconds{0};
    std::thread thread;
  } readers[2];
  auto began = Clock::now();
  for (int i = 0; i < 2; ++i) {
    Reader& r = readers[i];
    r.handle.reset(new Handle(server.url(i ? "/gjz" : "/plain")));
    if (i) EXPECT_EQ(x_smart_file_set_featureflag(r.handle->id, 1), SMFR_OK);
    r.thread = std::thread([&r, began] {
      char buf[1000];
      unsigned long got = 0;
      r.code = x_smart_file_read(r.handle->id, buf, sizeof(buf), &got);
      r.seconds = secondsSince(began);
    });
  }
  bool ended = waitFor([&] { return readers[0].code != 1 && readers[1].code != 1; }, 100000);
  for (Reader& r : readers) r.handle->close();
  for (Reader& r : readers) r.thread.join();
  ASSERT_TRUE(ended);
  EXPECT_EQ(readers[0].code.load(), SMFR_NOT_FOUND);
  EXPECT_GT(readers[0].seconds.load(), 33.0);
  EXPECT_LT(readers[0].seconds.load(), 50.0);
  EXPECT_EQ(server.rangeStarts("/plain").size(), 1u);
  EXPECT_EQ(readers[1].code.load(), SMFR_TIMEOUT);
  EXPECT_GT(readers[1].seconds.load(), 68.0);
  EXPECT_LT(readers[1].seconds.load(), 95.0);
  EXPECT_EQ(server.rangeStarts("/gjz").size(), 2u);
}

// A close returns a read blocked on a stalled server, also one it meets
// between the read's move to its position and its wait for data; a transfer
// held back by a speed limit still answers a close, a far seek and a new
// limit at once.
TEST(HttpSource, CloseSeekAndLimitTakeEffectAtOnce) {
  Script stalling(4 << 20);
  stalling.stallAfter = 65536;
  stalling.stallMs = 60000;
  ScriptedHttpServer server(stalling);
  for (bool held : {false, true}) {
    SCOPED_TRACE(held ? "held before its wait" : "waiting");
    LogCapture log(1);
    if (held) log.holdAt("seek:  ", 500);
    Handle h(server.url());
    std::atomic<long long> got{-1};
    std::thread reader([&] {
      int code = 0;
      got = static_cast<long long>(readBytes(h.id, 1 << 20, 200000, &code).size());
    });
    if (held) {
      ASSERT_TRUE(waitFor([&] { return log.countContaining("seek:  ") > 0; }));
    } else {
      ASSERT_TRUE(waitFor([&] { return server.bytesSent() >= 65536; }));
      EXPECT_TRUE(staysFalse([&] { return got >= 0; }, 300));
    }
    auto closing = Clock::now();
    EXPECT_EQ(h.close(), SMFR_OK);
    EXPECT_TRUE(waitFor([&] { return got >= 0; }, 3000));
    reader.join();
    EXPECT_LT(secondsSince(closing), 3.0);
    EXPECT_LE(got.load(), 65536);
  }
  server.route("/big", Script(16 << 20));
  for (int action = 0; action < 3; ++action) {
    SCOPED_TRACE(action);
    LogCapture log(0);
    // Two blocks: at 4 kB/s the chunk that brought the first bytes holds
    // the transfer for seconds.
    Handle h(server.url("/big"), 65536);
    ASSERT_EQ(x_smart_file_http_set_speed(h.id, action == 2 ? 4 << 20 : 4000), SMFR_OK);
    int code = 0;
    const long long first = action == 2 ? 1 << 20 : 1000;
    ASSERT_TRUE(isPatternAt(readBytes(h.id, first, 50000, &code), 0, first)) << code;
    auto began = Clock::now();
    long long cur = -1;
    if (action == 0) {
      EXPECT_EQ(h.close(), SMFR_OK);
    } else if (action == 1) {
      ASSERT_EQ(x_smart_file_seek(h.id, 12 << 20, &cur), SMFR_OK);
      ASSERT_TRUE(isPatternAt(readBytes(h.id, 1000, 1000, &code), 12 << 20, 1000)) << code;
      EXPECT_LT(secondsSince(began), 3.0);
      // The stopped transfer's limit holds on the new one: 150 kB at 200 kB/s.
      ASSERT_EQ(x_smart_file_http_set_speed(h.id, 200000), SMFR_OK);
      began = Clock::now();
      ASSERT_TRUE(isPatternAt(readBytes(h.id, 150000, 50000, &code), (12 << 20) + 1000, 150000));
      EXPECT_GT(secondsSince(began), 0.3);
    } else {
      // 100 kB at 200 kB/s take half a second; paying back the first MiB
      // at the new rate would take five.
      ASSERT_EQ(x_smart_file_http_set_speed(h.id, 200000), SMFR_OK);
      ASSERT_TRUE(isPatternAt(readBytes(h.id, 100000, 50000, &code), first, 100000)) << code;
      EXPECT_GT(secondsSince(began), 0.1);  // the rest beyond the two blocks held
    }
    EXPECT_LT(secondsSince(began), 3.0);
    EXPECT_LE(log.count("wait stop flag"), 2);
  }
}

TEST(HttpSource, OptionsReachTheWireAndAnswersAreReported) {
  Script s(1 << 20);
  s.extraHeaders = {"Server: TestServer/1.0  "};
  ScriptedHttpServer server(s);
  int code = 0;
  {
    Handle h(server.url("/opts"));
    EXPECT_EQ(x_smart_file_http_set_userAgent(h.id, "CorvaneTest/2"), SMFR_OK);
    EXPECT_EQ(x_smart_file_http_set_cookie(h.id, "k=v; w=z"), SMFR_OK);
    EXPECT_EQ(x_smart_file_http_set_key_type(h.id, "PEM"), SMFR_OK);  // unused without TLS
    EXPECT_EQ(readBytes(h.id, 1000, 1000, &code).size(), 1000u);
    RecordedRequest r = server.requests().at(0);
    EXPECT_EQ(r.header("User-Agent"), "CorvaneTest/2");
    EXPECT_EQ(r.header("Cookie"), "k=v; w=z");
    EXPECT_EQ(r.header("Range"), "bytes=0-");
    EXPECT_STREQ(x_smart_file_http_get_server_name(h.id), "TestServer/1.0");
    EXPECT_STREQ(x_smart_file_http_get_content_type(h.id), "application/octet-stream");
    char ip[26];
    std::memset(ip, 'G', sizeof(ip));
    EXPECT_EQ(x_smart_file_http_get_url_ip(h.id, ip), SMFR_OK);
    EXPECT_STREQ(ip, "127.0.0.1");
    EXPECT_EQ(std::string(ip + 16, 10), std::string(10, 'G'));  // 16 bytes at most
  }
  {
    Handle h(server.url("/plain"));
    EXPECT_EQ(readBytes(h.id, 1000, 1000, &code).size(), 1000u);
    RecordedRequest r = server.requests().back();
    EXPECT_EQ(r.header("User-Agent"), "curl/7.19.5");
    EXPECT_EQ(r.header("Pragma"), "no-cache");
    EXPECT_FALSE(r.hasHeader("Cookie"));
  }
  {
    // The scripted server stands in as the proxy: it gets the absolute URL.
    const std::string target = "http://corvane-proxy-target.invalid/through";
    Handle h(target);
    std::string proxy = "http://127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(x_smart_file_http_set_proxy(h.id, proxy.c_str()), SMFR_OK);
    EXPECT_EQ(readBytes(h.id, 1000, 1000, &code).size(), 1000u) << code;
    EXPECT_EQ(server.requests().back().target, target);
  }
  {
    // The speed reported follows the last seconds: after 1 MB/s for over a
    // second, then 100 kB/s for two and a half, it is near 100 kB/s while
    // the transfer's mean is near 400 kB/s.
    server.route("/speed", Script(8 << 20));
    LogCapture log(0);
    Handle h(server.url("/speed"));
    ASSERT_EQ(x_smart_file_http_set_speed(h.id, 1000000), SMFR_OK);
    EXPECT_EQ(readBytes(h.id, 1200000, 100000, &code).size(), 1200000u);
    ASSERT_EQ(x_smart_file_http_set_speed(h.id, 100000), SMFR_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    long long speed = x_smart_file_http_get_speed(h.id);
    EXPECT_TRUE(speed > 50000 && speed < 250000) << speed;
    EXPECT_GT(log.countContaining("download aver_speed is"), 0);
  }
  ScriptedHttpServer server6(Script{}, true);
  Handle v4(server6.url("/v4"));  // a handle starts as IPv4 only
  EXPECT_EQ(readBytes(v4.id, 1000, 1000, &code).size(), 0u);
  Handle h(server6.url("/v6"));
  EXPECT_EQ(x_smart_file_http_set_ip_resolve(h.id, "IPv6"), SMFR_OK);
  EXPECT_EQ(readBytes(h.id, 1000, 1000, &code).size(), 1000u) << code;
  char ip[64] = {0};
  EXPECT_EQ(x_smart_file_http_get_url_ip(h.id, ip), SMFR_OK);
  EXPECT_STREQ(ip, "::1");
}

// The header block of the final answer: 301 and 302 drop their own lines,
// the others keep them; at most 8192 bytes are kept.
TEST(HttpSource, HeaderBlockOfTheFinalAnswer) {
  ScriptedHttpServer server;
  server.route("/final", Script(3000));
  Script padded(50000);
  for (int i = 0; i < 120; ++i) padded.extraHeaders.push_back("X-" + std::to_string(i) + ": " + std::string(100, 'p'));
  server.route("/padded", padded);
  for (int status : {302, 301, 303, 307, 0}) {
    Script redirect;
    redirect.status = status;
    redirect.location = "/final";
    server.route("/start", redirect);
    Handle h(server.url(status ? "/start" : "/padded"));
    int code = 0, length = 0;
    long long size = status ? 3000 : 50000;
    EXPECT_TRUE(isPatternAt(readBytes(h.id, size, 50000, &code), 0, size)) << status;
    char block[9000];
    ASSERT_EQ(x_smart_file_http_get_header(h.id, block, sizeof(block), &length), SMFR_OK);
    std::string text(block, static_cast<size_t>(length));
    EXPECT_EQ(text.find("Location: /final") != std::string::npos, status > 302) << status;
    EXPECT_NE(text.find("HTTP/1.1 206 Partial Content\r\n"), std::string::npos) << status;
    if (!status) EXPECT_EQ(length, 8192);
  }
}

}  // namespace
}  // namespace testsupport
