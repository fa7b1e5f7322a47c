// A real nginx on loopback: start() writes its configuration, a self-signed
// certificate (the openssl command) and the files into a temporary
// directory and runs /usr/sbin/nginx in the foreground on two ephemeral
// ports, plain HTTP and HTTPS. The destructor stops it.
#ifndef CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
#define CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_

#include <sys/types.h>

#include <string>

#include "support/support.h"

namespace testsupport {

constexpr char kNginxBinary[] = "/usr/sbin/nginx";

class NginxFixture {
 public:
  ~NginxFixture();
  static bool available();
  bool start(std::string* why);  // false with the reason
  void addPatternFile(const std::string& name, long long size);  // served as "/<name>"
  std::string httpUrl(const std::string& name) const { return url("http", httpPort_, name); }
  std::string httpsUrl(const std::string& name) const { return url("https", httpsPort_, name); }

 private:
  static std::string url(const char* scheme, int port, const std::string& name) {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + "/" + name;
  }
  TempDir dir_;
  pid_t pid_ = -1;
  int httpPort_ = 0, httpsPort_ = 0;
};

}  // namespace testsupport

// Skips the test when nginx cannot run here; else leaves `fixture` started.
#define CV_START_NGINX_OR_SKIP(fixture)                              \
  do {                                                               \
    std::string why_;                                                \
    if (!::testsupport::NginxFixture::available()) GTEST_SKIP() << "no nginx"; \
    if (!(fixture).start(&why_)) GTEST_SKIP() << "nginx: " << why_;  \
  } while (0)

#endif  // CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
