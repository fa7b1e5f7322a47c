// A real nginx on loopback: start() writes its configuration, a self-signed
// certificate (the openssl command) and the files into a temporary
// directory and runs nginx in the foreground on two ephemeral ports, plain
// HTTP and HTTPS. The destructor stops it.
#ifndef CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
#define CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_

#include <sys/types.h>

#include "support/support.h"

namespace testsupport {

class NginxFixture {
 public:
  ~NginxFixture();
  bool start(std::string* why);  // false with the reason (no nginx, no openssl, no start)
  void addPatternFile(const std::string& name, long long size);  // served as "/<name>"
  std::string url(const std::string& name, bool https = false) const {
    return (https ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(ports_[https]) + "/" + name;
  }

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  int ports_[2] = {0, 0};
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_NGINX_FIXTURE_H_
