// A loopback port that refuses connections: bound but not listening, and
// kept bound for the holder's life so no other process can take it meanwhile.
#ifndef CORVANE_TESTS_SUPPORT_REFUSING_PORT_H_
#define CORVANE_TESTS_SUPPORT_REFUSING_PORT_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace testsupport {

class RefusingPort {
 public:
  RefusingPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~RefusingPort() { close(fd_); }
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/f"; }

 private:
  int fd_;
  int port_ = 0;
};

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_REFUSING_PORT_H_
