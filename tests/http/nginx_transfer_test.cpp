// Ranged GETs against a real nginx on loopback, over HTTP and HTTPS.
#include <string>

#include <gtest/gtest.h>

#include "http/transfer_harness.h"
#include "support/nginx_fixture.h"

namespace testsupport {
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
      Transfer t;
      ASSERT_EQ(t.get(url, c.from, c.to), 0) << url << " from " << c.from;
      long long expected = (c.to == 0 ? kFileSize - 1 : c.to) - c.from + 1;
      ASSERT_TRUE(isPatternAt(t.requestor.bytes(), c.from, expected)) << url << " from " << c.from;
      EXPECT_TRUE(t.method.seekAbleCheckFromResponse());
      EXPECT_EQ(t.method.getSizeFromResponseRange(), kFileSize);
      EXPECT_TRUE(t.method.checkFromContentLength());
      if (c.to == 0) { EXPECT_EQ(t.method.getFileSize(), kFileSize); }
    }
  }
}

TEST_F(NginxTransfer, ServerNameAndMissingFile) {
  Transfer t;
  ASSERT_EQ(t.get(nginx.httpUrl("pattern.bin"), 0, 99), 0);
  EXPECT_EQ(t.method.getServerName().compare(0, 6, "nginx/"), 0) << t.method.getServerName();
  EXPECT_EQ(t.method.getContentType(), "application/octet-stream");
  Transfer missing;
  EXPECT_EQ(missing.get(nginx.httpsUrl("absent.bin")), 404);
}

}  // namespace
}  // namespace testsupport
