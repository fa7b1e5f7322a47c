// A real server: nginx on loopback, over HTTP and HTTPS.
#include <random>

#include "corvane/smart_file.h"
#include "support/nginx_fixture.h"

namespace testsupport {
namespace {

TEST(Nginx, SequentialAndRandomReadsAreByteExactOverHttpAndHttps) {
  NginxFixture nginx;
  std::string why;
  if (!nginx.start(&why)) GTEST_SKIP() << why;
  const long long size = (5 << 20) + 777;
  nginx.addPatternFile("f.bin", size);
  for (bool https : {false, true}) {
    SCOPED_TRACE(https ? "https" : "http");
    Handle h(nginx.url("f.bin", https));
    int code = 0;
    EXPECT_TRUE(isPatternAt(readBytes(h.id, size + 1, 50000, &code), 0, size));
    EXPECT_EQ(code, SMFR_EOF);
    EXPECT_EQ(x_smart_file_size(h.id), size);
    // Asked of the finished transfer: a seek's new connection starts a new header block.
    EXPECT_EQ(std::string(x_smart_file_http_get_server_name(h.id)).rfind("nginx", 0), 0u);
    std::mt19937_64 rng(29);
    for (int i = 0; i < 20; ++i) {
      long long at = static_cast<long long>(rng() % size), cur = -1;
      long long want = std::min<long long>(size - at, 1 + static_cast<long long>(rng() % 90000));
      ASSERT_EQ(x_smart_file_seek(h.id, at, &cur), SMFR_OK);
      ASSERT_TRUE(isPatternAt(readBytes(h.id, want, 20000, &code), at, want)) << at;
    }
  }
}

}  // namespace
}  // namespace testsupport
