#include "support/nginx_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

namespace testsupport {

NginxFixture::~NginxFixture() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

void NginxFixture::addPatternFile(const std::string& name, long long size) {
  std::ofstream out(dir_.file("www/" + name), std::ios::binary);
  for (long long at = 0; at < size; at += 1 << 20) out << patternBytes(at, std::min<long long>(1 << 20, size - at));
  out.close();
  chmod(dir_.file("www/" + name).c_str(), 0644);
}

bool NginxFixture::start(std::string* why) {
  const char* nginx = "/usr/sbin/nginx";
  if (access(nginx, X_OK) != 0) {
    *why = "no nginx";
    return false;
  }
  // Workers may run as another user: everything they read is readable.
  chmod(dir_.file("").c_str(), 0755);
  mkdir(dir_.file("www").c_str(), 0755);
  std::string cmd = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout '" +
                    dir_.file("key.pem") + "' -out '" + dir_.file("cert.pem") +
                    "' -days 2 -subj /CN=localhost >/dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) {
    *why = "openssl could not make a certificate";
    return false;
  }
  chmod(dir_.file("key.pem").c_str(), 0644);
  ports_[0] = freePort();
  ports_[1] = freePort();
  std::ofstream(dir_.file("nginx.conf"))
      << (geteuid() == 0 ? "user root root;\n" : "") << "worker_processes 1;\ndaemon off;\npid "
      << dir_.file("nginx.pid") << ";\nerror_log " << dir_.file("error.log")
      << " warn;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n  client_body_temp_path "
      << dir_.file("body") << ";\n  proxy_temp_path " << dir_.file("proxy") << ";\n  fastcgi_temp_path "
      << dir_.file("fcgi") << ";\n  uwsgi_temp_path " << dir_.file("uwsgi") << ";\n  scgi_temp_path "
      << dir_.file("scgi") << ";\n  server {\n    listen 127.0.0.1:" << ports_[0] << ";\n    listen 127.0.0.1:"
      << ports_[1] << " ssl;\n    ssl_certificate " << dir_.file("cert.pem") << ";\n    ssl_certificate_key "
      << dir_.file("key.pem") << ";\n    root " << dir_.file("www") << ";\n  }\n}\n";
  pid_ = fork();
  if (pid_ == 0) {
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    dup2(devnull, 2);
    execl(nginx, nginx, "-p", dir_.file("").c_str(), "-c", dir_.file("nginx.conf").c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;  // exited: nothing to stop
      break;
    }
    // Written once the configuration is read and its ports listen.
    if (access(dir_.file("nginx.pid").c_str(), F_OK) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::ifstream log(dir_.file("error.log"));
  *why = "did not start: " + std::string(std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>());
  return false;
}

}  // namespace testsupport
