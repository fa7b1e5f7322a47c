#include "support/nginx_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "support/support.h"

namespace testsupport {

namespace {

// A port the kernel just handed out and released; nginx binds it a moment
// later (start() retries if another process took it meanwhile).
int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

bool canConnect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(fd);
  return ok;
}

}  // namespace

NginxFixture::~NginxFixture() { stop(); }

bool NginxFixture::available() { return access(kNginxBinary, X_OK) == 0; }

void NginxFixture::addPatternFile(const std::string& name, long long size) {
  mkdir(dir_.file("www").c_str(), 0755);
  std::ofstream out(dir_.file("www/" + name), std::ios::binary);
  std::vector<char> chunk(1 << 16);
  for (long long at = 0; at < size; at += static_cast<long long>(chunk.size())) {
    long long n = std::min<long long>(static_cast<long long>(chunk.size()), size - at);
    fillPattern(chunk.data(), at, n);
    out.write(chunk.data(), n);
  }
  chmod(dir_.file("www/" + name).c_str(), 0644);
}

void NginxFixture::addFile(const std::string& name, const std::string& bytes) {
  mkdir(dir_.file("www").c_str(), 0755);
  std::ofstream out(dir_.file("www/" + name), std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  chmod(dir_.file("www/" + name).c_str(), 0644);
}

bool NginxFixture::start(std::string* why) {
  // Workers may run as another user: everything they read must be readable.
  chmod(dir_.file(".").c_str(), 0755);
  mkdir(dir_.file("www").c_str(), 0755);
  mkdir(dir_.file("tmp").c_str(), 0755);
  std::string cmd = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
                    " -keyout '" + dir_.file("key.pem") + "' -out '" + dir_.file("cert.pem") +
                    "' -days 2 -subj /CN=localhost >/dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) {
    *why = "openssl could not make a certificate";
    return false;
  }
  chmod(dir_.file("key.pem").c_str(), 0644);

  for (int tries = 0; tries < 3; ++tries) {
    httpPort_ = freePort();
    httpsPort_ = freePort();
    std::ofstream conf(dir_.file("nginx.conf"));
    std::string tmp = dir_.file("tmp");
    conf << (geteuid() == 0 ? "user root root;\n" : "")
         << "worker_processes 1;\n"
         << "daemon off;\n"
         << "pid " << dir_.file("nginx.pid") << ";\n"
         << "error_log " << dir_.file("error.log") << " warn;\n"
         << "events { worker_connections 256; }\n"
         << "http {\n"
         << "  access_log off;\n"
         << "  default_type application/octet-stream;\n"
         << "  client_body_temp_path " << tmp << "/body;\n"
         << "  proxy_temp_path " << tmp << "/proxy;\n"
         << "  fastcgi_temp_path " << tmp << "/fastcgi;\n"
         << "  uwsgi_temp_path " << tmp << "/uwsgi;\n"
         << "  scgi_temp_path " << tmp << "/scgi;\n"
         << "  sendfile on;\n"
         << "  server {\n"
         << "    listen 127.0.0.1:" << httpPort_ << ";\n"
         << "    listen 127.0.0.1:" << httpsPort_ << " ssl;\n"
         << "    ssl_certificate " << dir_.file("cert.pem") << ";\n"
         << "    ssl_certificate_key " << dir_.file("key.pem") << ";\n"
         << "    root " << dir_.file("www") << ";\n"
         << "  }\n"
         << "}\n";
    conf.close();

    pid_ = fork();
    if (pid_ == 0) {
      int devnull = open("/dev/null", O_WRONLY);
      if (devnull >= 0) {
        dup2(devnull, 1);
        dup2(devnull, 2);
      }
      execl(kNginxBinary, kNginxBinary, "-p", dir_.file(".").c_str(), "-c",
            dir_.file("nginx.conf").c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    if (pid_ < 0) {
      *why = "fork failed";
      return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      if (canConnect(httpPort_) && canConnect(httpsPort_)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop();
  }
  std::ifstream log(dir_.file("error.log"));
  std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
  *why = "did not start: " + text;
  return false;
}

void NginxFixture::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  pid_ = -1;
}

std::string NginxFixture::httpUrl(const std::string& name) const {
  return "http://127.0.0.1:" + std::to_string(httpPort_) + "/" + name;
}

std::string NginxFixture::httpsUrl(const std::string& name) const {
  return "https://127.0.0.1:" + std::to_string(httpsPort_) + "/" + name;
}

}  // namespace testsupport
