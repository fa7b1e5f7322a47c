#include "support/nginx_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

namespace testsupport {

namespace {

// A port the kernel hands out and takes back; connect() tells when nginx
// listens on it.
int port(bool connectTo = false, int to = 0) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(to));
  socklen_t len = sizeof(addr);
  int result = connectTo ? connect(fd, reinterpret_cast<sockaddr*>(&addr), len)
                         : bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  if (!connectTo) getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return connectTo ? result == 0 : ntohs(addr.sin_port);
}

}  // namespace

NginxFixture::~NginxFixture() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

bool NginxFixture::available() { return access(kNginxBinary, X_OK) == 0; }

void NginxFixture::addPatternFile(const std::string& name, long long size) {
  std::ofstream out(dir_.file("www/" + name), std::ios::binary);
  for (long long at = 0; at < size; at += 1 << 20) out << patternBytes(at, std::min<long long>(1 << 20, size - at));
  out.close();
  chmod(dir_.file("www/" + name).c_str(), 0644);
}

bool NginxFixture::start(std::string* why) {
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
  httpPort_ = port();
  httpsPort_ = port();
  std::ofstream(dir_.file("nginx.conf"))
      << (geteuid() == 0 ? "user root root;\n" : "") << "worker_processes 1;\ndaemon off;\npid "
      << dir_.file("nginx.pid") << ";\nerror_log " << dir_.file("error.log")
      << " warn;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n  client_body_temp_path "
      << dir_.file("body") << ";\n  proxy_temp_path " << dir_.file("proxy") << ";\n  fastcgi_temp_path "
      << dir_.file("fcgi") << ";\n  uwsgi_temp_path " << dir_.file("uwsgi") << ";\n  scgi_temp_path "
      << dir_.file("scgi") << ";\n  server {\n    listen 127.0.0.1:" << httpPort_ << ";\n    listen 127.0.0.1:"
      << httpsPort_ << " ssl;\n    ssl_certificate " << dir_.file("cert.pem") << ";\n    ssl_certificate_key "
      << dir_.file("key.pem") << ";\n    root " << dir_.file("www") << ";\n  }\n}\n";
  pid_ = fork();
  if (pid_ == 0) {
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    dup2(devnull, 2);
    execl(kNginxBinary, kNginxBinary, "-p", dir_.file("").c_str(), "-c", dir_.file("nginx.conf").c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;  // exited: nothing to stop
      break;
    }
    if (port(true, httpPort_) && port(true, httpsPort_)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::ifstream log(dir_.file("error.log"));
  *why = "did not start: " + std::string(std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>());
  return false;
}

}  // namespace testsupport
