#include "support/scripted_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace testsupport {

std::string lowerCase(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

namespace {

bool sendAll(int fd, const char* data, size_t size) {
  for (ssize_t n = 0; size > 0; data += n, size -= static_cast<size_t>(n)) {
    if ((n = send(fd, data, size, MSG_NOSIGNAL)) <= 0) return false;
  }
  return true;
}

// The request's path: origin form, or the path of an absolute (proxy) form.
std::string pathOf(std::string target) {
  size_t scheme = target.find("://");
  if (scheme != std::string::npos) target = target.substr(std::min(target.size(), target.find('/', scheme + 3)));
  return target.substr(0, target.find('?'));
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  auto it = headers.find(lowerCase(name));
  return it == headers.end() ? "" : it->second;
}

ScriptedHttpServer::ScriptedHttpServer(Script defaultScript, bool ipv6) : ipv6_(ipv6), default_(std::move(defaultScript)) {
  listenFd_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 addr6{};
  sockaddr_in addr4{};
  addr6.sin6_family = AF_INET6;
  addr6.sin6_addr = in6addr_loopback;
  addr4.sin_family = AF_INET;
  addr4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr* addr = ipv6 ? reinterpret_cast<sockaddr*>(&addr6) : reinterpret_cast<sockaddr*>(&addr4);
  socklen_t len = ipv6 ? sizeof(addr6) : sizeof(addr4);
  bind(listenFd_, addr, len);
  listen(listenFd_, 64);
  getsockname(listenFd_, addr, &len);
  port_ = ntohs(ipv6 ? addr6.sin6_port : addr4.sin_port);
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    stopCond_.notify_all();
    for (int fd : openFds_) shutdown(fd, SHUT_RDWR);  // out of recv and send
  }
  shutdown(listenFd_, SHUT_RDWR);  // out of poll
  acceptThread_.join();
  for (Worker& w : workers_) w.thread.join();
  close(listenFd_);
}

std::string ScriptedHttpServer::url(const std::string& path) const {
  return std::string("http://") + (ipv6_ ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port_) + path;
}

void ScriptedHttpServer::route(const std::string& path, const Script& script) {
  std::lock_guard<std::mutex> lock(mutex_);
  routes_[path] = script;
  servedPerPath_[path] = 0;
}

std::vector<RecordedRequest> ScriptedHttpServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<long long> ScriptedHttpServer::rangeStarts(const std::string& path) const {
  std::vector<long long> starts;
  for (const RecordedRequest& r : requests()) {
    std::string range = r.header("Range");
    if (r.target == path) starts.push_back(range.rfind("bytes=", 0) == 0 ? std::stoll(range.substr(6)) : -1);
  }
  return starts;
}

void ScriptedHttpServer::acceptLoop() {
  pollfd p{listenFd_, POLLIN, 0};
  while (poll(&p, 1, -1) > 0 && !stopping_) {
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard<std::mutex> lock(mutex_);
    if (fd < 0 || stopping_) {
      if (fd >= 0) close(fd);
      if (stopping_) return;
      continue;
    }
    // Joins the workers that are done, so a long run keeps few threads.
    auto done = std::partition(workers_.begin(), workers_.end(), [](Worker& w) { return !*w.done; });
    for (auto it = done; it != workers_.end(); ++it) it->thread.join();
    workers_.erase(done, workers_.end());
    openFds_.push_back(fd);
    auto flag = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back(Worker{std::thread([this, fd, flag] {
                                serve(fd);
                                std::lock_guard<std::mutex> guard(mutex_);
                                openFds_.erase(std::find(openFds_.begin(), openFds_.end(), fd));
                                close(fd);
                                *flag = true;
                              }),
                              flag});
  }
}

bool ScriptedHttpServer::pause(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopCond_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_.load(); });
}

void ScriptedHttpServer::serve(int fd) {
  std::string head;
  char buf[4096];
  for (pollfd p{fd, POLLIN, 0}; head.find("\r\n\r\n") == std::string::npos && poll(&p, 1, 10000) > 0;) {
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0) return;
    head.append(buf, static_cast<size_t>(n));
  }
  RecordedRequest request;
  std::istringstream lines(head.substr(0, head.find("\r\n\r\n")));
  std::string line;
  std::getline(lines, line);
  std::istringstream(line) >> request.target >> request.target;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    size_t value = std::min(line.size(), line.find_first_not_of(' ', colon + 1));
    request.headers.emplace(lowerCase(line.substr(0, colon)), line.substr(value));
  }
  int index;
  Script s;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
    std::string path = pathOf(request.target);
    index = servedPerPath_[path]++;
    s = routes_.count(path) ? routes_[path] : default_;
  }
  if (s.after && index > 0) s = *s.after;
  if (s.content) s.size = static_cast<long long>(s.content->size());

  // "Range: bytes=A-" or "bytes=A-B".
  std::string range = request.header("Range");
  bool ranged = range.rfind("bytes=", 0) == 0;
  long long first = ranged ? std::atoll(range.c_str() + 6) : 0;
  size_t dash = range.find('-');
  long long last = ranged && dash + 1 < range.size() ? std::atoll(range.c_str() + dash + 1) : s.size - 1;
  std::string out, body;
  long long begin = 0, length = 0;
  if (ranged && s.rangeStatus != 0) {
    out = "HTTP/1.1 " + std::to_string(s.rangeStatus) + " Refused\r\nContent-Range: bytes */" + std::to_string(s.size) +
          "\r\nContent-Length: 0\r\n";
  } else if (s.status != 0) {
    body = s.body;
    out = "HTTP/1.1 " + std::to_string(s.status) + " Status\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    if (!s.location.empty()) out += "Location: " + s.location + "\r\n";
  } else {
    bool partial = ranged && s.honourRange;
    begin = partial ? std::min(first, s.size) : 0;
    length = partial ? std::max(0LL, std::min(last, s.size - 1) - begin + 1) : s.size;
    out = partial ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n";
    if (s.contentLength && !s.unknownTotal) out += "Content-Length: " + std::to_string(length) + "\r\n";
    if (partial) {
      out += "Content-Range: bytes " + std::to_string(begin) + "-" + std::to_string(begin + length - 1) + "/" +
             (s.unknownTotal ? "*" : std::to_string(s.size)) + "\r\nAccept-Ranges: bytes\r\n";
    }
    out += "Content-Type: application/octet-stream\r\n";
  }
  if (!s.statusLine.empty()) out = s.statusLine + out.substr(out.find("\r\n"));
  for (const auto& h : s.extraHeaders) out += h + "\r\n";
  out += "Connection: close\r\n\r\n" + body;
  if ((s.headerDelayMs > 0 && !pause(s.headerDelayMs)) || !sendAll(fd, out.data(), out.size())) return;

  long long drop = s.dropPlan.empty() ? -1 : s.dropPlan[std::min<size_t>(index, s.dropPlan.size() - 1)];
  bool stall = s.stallAfter >= 0 && (s.stallTimes < 0 || index < s.stallTimes);
  std::string chunk;
  for (long long sent = 0; sent < length && sent != drop && !stopping_;) {
    if (stall && sent >= s.stallAfter) {
      stall = false;
      if (!pause(s.stallMs)) return;
    }
    long long n = std::min<long long>(16384, length - sent);
    if (drop >= 0) n = std::min(n, drop - sent);
    if (stall) n = std::min(n, s.stallAfter - sent);
    chunk = s.content ? s.content->substr(static_cast<size_t>(begin + sent), static_cast<size_t>(n))
                      : patternBytes(begin + sent, n);
    if (!sendAll(fd, chunk.data(), chunk.size())) return;
    sent += n;
    bytesSent_ += n;
  }
}

}  // namespace testsupport
