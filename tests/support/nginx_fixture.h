// A real nginx on loopback for tests that need a real server.
//
// start() writes its own configuration, a self-signed certificate (made
// with the openssl command) and pattern files into a temporary directory,
// and runs /usr/sbin/nginx in the foreground on two ephemeral loopback ports
// (plain HTTP and HTTPS). Nothing outside the temporary directory is used.
// The destructor stops nginx and waits for it.
#ifndef CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
#define CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_

#include <sys/types.h>

#include <string>

#include "support/support.h"

namespace testsupport {

constexpr char kNginxBinary[] = "/usr/sbin/nginx";

class NginxFixture {
 public:
  NginxFixture() = default;
  ~NginxFixture();
  NginxFixture(const NginxFixture&) = delete;
  NginxFixture& operator=(const NginxFixture&) = delete;

  static bool available();
  // Starts nginx; on failure returns false with the reason in `why`.
  bool start(std::string* why);
  // Writes a pattern file of `size` bytes served as "/<name>".
  void addPatternFile(const std::string& name, long long size);
  // Writes `bytes` served as "/<name>".
  void addFile(const std::string& name, const std::string& bytes);

  std::string httpUrl(const std::string& name) const;
  std::string httpsUrl(const std::string& name) const;
  int httpPort() const { return httpPort_; }
  int httpsPort() const { return httpsPort_; }

 private:
  void stop();

  TempDir dir_;
  pid_t pid_ = -1;
  int httpPort_ = 0;
  int httpsPort_ = 0;
};

}  // namespace testsupport

// Skips the current test when nginx cannot run here; otherwise leaves a
// started fixture in `fixture`.
#define CV_START_NGINX_OR_SKIP(fixture)                              \
  do {                                                               \
    if (!::testsupport::NginxFixture::available()) {                 \
      GTEST_SKIP() << "nginx is not installed";                      \
    }                                                                \
    std::string why_;                                                \
    if (!(fixture).start(&why_)) GTEST_SKIP() << "nginx: " << why_;  \
  } while (0)

#endif  // CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
