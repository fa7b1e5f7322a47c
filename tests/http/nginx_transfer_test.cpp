// Ranged GETs against a real nginx on loopback, over HTTP and HTTPS.
#include <string>

#include <gtest/gtest.h>

#include "http/collecting_requestor.h"
#include "http/method_request.h"
#include "support/nginx_fixture.h"
#include "support/scripted_http_server.h"

using testsupport::CollectingRequestor;
using testsupport::firstPatternMismatch;
using testsupport::NginxFixture;

namespace {

constexpr long long kFileSize = 3 * 1024 * 1024 + 517;

class NginxTransfer : public ::testing::Test {
 protected:
  void SetUp() override {
    nginx.addPatternFile("pattern.bin", kFileSize);
    CV_START_NGINX_OR_SKIP(nginx);
  }
  NginxFixture nginx;
};

TEST_F(NginxTransfer, RangedGetsAreByteExactOverHttpAndHttps) {
  struct Case {
    long long from;
    long long to;
  };
  const Case cases[] = {{0, 0}, {1, 0}, {32768, 0}, {kFileSize - 1, 0}, {1000000, 1065535}};
  for (bool tls : {false, true}) {
    std::string url = tls ? nginx.httpsUrl("pattern.bin") : nginx.httpUrl("pattern.bin");
    for (const Case& c : cases) {
      CollectingRequestor requestor;
      webs::MethodRequest m;
      m.initialize(&requestor, "");
      ASSERT_EQ(m.executeGet(url, c.from, c.to, 1), 0) << url << " from " << c.from;
      long long expected = (c.to == 0 ? kFileSize - 1 : c.to) - c.from + 1;
      std::string body = requestor.bytes();
      ASSERT_EQ(static_cast<long long>(body.size()), expected) << url << " from " << c.from;
      EXPECT_EQ(firstPatternMismatch(body.data(), c.from, expected), -1) << url;
      EXPECT_TRUE(m.seekAbleCheckFromResponse());
      EXPECT_EQ(m.getSizeFromResponseRange(), kFileSize);
      EXPECT_TRUE(m.checkFromContentLength());
      if (c.to == 0) {
        EXPECT_EQ(m.getFileSize(), kFileSize);
      }
    }
  }
}

TEST_F(NginxTransfer, ServerNameAndMissingFile) {
  CollectingRequestor requestor;
  webs::MethodRequest m;
  m.initialize(&requestor, "");
  ASSERT_EQ(m.executeGet(nginx.httpUrl("pattern.bin"), 0, 99, 1), 0);
  EXPECT_EQ(m.getServerName().compare(0, 6, "nginx/"), 0) << m.getServerName();
  EXPECT_EQ(m.getContentType(), "application/octet-stream");

  webs::MethodRequest missing;
  missing.initialize(&requestor, "");
  EXPECT_EQ(missing.executeGet(nginx.httpsUrl("absent.bin"), 0, 0, 1), 404);
}

}  // namespace
