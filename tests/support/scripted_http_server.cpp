#include "support/scripted_http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace testsupport {

namespace {

constexpr int kChunk = 16384;
constexpr int kRequestHeaderLimit = 65536;
constexpr int kReadTimeoutMs = 10000;

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 307: return "Temporary Redirect";
    case 404: return "Not Found";
    case 416: return "Range Not Satisfiable";
    case 503: return "Service Unavailable";
    default: return "Status";
  }
}

// "bytes=A-" or "bytes=A-B"; false when absent or malformed.
bool parseRange(const std::string& value, long long* first, long long* last) {
  if (value.compare(0, 6, "bytes=") != 0) return false;
  std::string spec = value.substr(6);
  size_t dash = spec.find('-');
  if (dash == std::string::npos || dash == 0) return false;
  *first = std::atoll(spec.substr(0, dash).c_str());
  std::string end = spec.substr(dash + 1);
  *last = end.empty() ? -1 : std::atoll(end.c_str());
  return true;
}

std::string pathOf(const std::string& target) {
  std::string path = target;
  // Absolute form (a proxy request): keep the path after the authority.
  size_t scheme = path.find("://");
  if (scheme != std::string::npos) {
    size_t slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? "/" : path.substr(slash);
  }
  size_t query = path.find('?');
  return query == std::string::npos ? path : path.substr(0, query);
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  std::string wanted = lower(name);
  for (const auto& h : headers) {
    if (lower(h.first) == wanted) return h.second;
  }
  return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  std::string wanted = lower(name);
  for (const auto& h : headers) {
    if (lower(h.first) == wanted) return true;
  }
  return false;
}

std::vector<long long> ScriptedHttpServer::rangeStarts(const std::string& path) const {
  std::vector<long long> starts;
  for (const RecordedRequest& r : requests()) {
    if (r.target != path) continue;
    std::string range = r.header("Range");
    starts.push_back(range.rfind("bytes=", 0) == 0 ? std::stoll(range.substr(6)) : -1);
  }
  return starts;
}

ScriptedHttpServer::ScriptedHttpServer(Script defaultScript, bool ipv6)
    : ipv6_(ipv6), default_(std::move(defaultScript)) {
  if (pipe(wakePipe_) != 0) return;
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  int bound;
  if (ipv6) {
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    bound = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  } else {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bound = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  }
  if (bound != 0 || listen(fd, 64) != 0) {
    close(fd);
    return;
  }
  sockaddr_storage local{};
  socklen_t len = sizeof(local);
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
  port_ = ipv6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&local)->sin6_port)
               : ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port);
  listenFd_ = fd;
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptedHttpServer::~ScriptedHttpServer() {
  stopping_ = true;
  if (wakePipe_[1] >= 0) {
    char byte = 1;
    (void)!write(wakePipe_[1], &byte, 1);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopCond_.notify_all();
    // Unblocks workers sitting in recv/send.
    for (int fd : openFds_) shutdown(fd, SHUT_RDWR);
  }
  if (acceptThread_.joinable()) acceptThread_.join();
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    workers.swap(workers_);
  }
  for (auto& t : workers) t.join();
  if (listenFd_ >= 0) close(listenFd_);
  if (wakePipe_[0] >= 0) close(wakePipe_[0]);
  if (wakePipe_[1] >= 0) close(wakePipe_[1]);
}

std::string ScriptedHttpServer::url(const std::string& path) const {
  return std::string("http://") + (ipv6_ ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port_) +
         path;
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

int ScriptedHttpServer::requestCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(requests_.size());
}

void ScriptedHttpServer::acceptLoop() {
  while (!stopping_) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) <= 0) continue;
    if (stopping_ || (fds[1].revents & POLLIN)) break;
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      close(fd);
      break;
    }
    reapFinishedWorkers();
    openFds_.push_back(fd);
    workers_.emplace_back([this, fd] {
      serve(fd);
      std::lock_guard<std::mutex> done(mutex_);
      finishedWorkers_.push_back(std::this_thread::get_id());
    });
  }
}

void ScriptedHttpServer::reapFinishedWorkers() {
  for (std::thread::id id : finishedWorkers_) {
    auto it = std::find_if(workers_.begin(), workers_.end(),
                           [id](const std::thread& t) { return t.get_id() == id; });
    if (it == workers_.end()) continue;
    // The worker has only its return left to run.
    it->join();
    workers_.erase(it);
  }
  finishedWorkers_.clear();
}

bool ScriptedHttpServer::pause(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopCond_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_.load(); });
}

namespace {
bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Script ScriptedHttpServer::scriptFor(const std::string& target, int* connectionIndex) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string path = pathOf(target);
  *connectionIndex = servedPerPath_[path]++;
  auto it = routes_.find(path);
  const Script& s = it == routes_.end() ? default_ : it->second;
  if (s.after && *connectionIndex >= s.afterConnections) return *s.after;
  return s;
}

void ScriptedHttpServer::serve(int fd) {
  std::string head;
  char buf[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < kRequestHeaderLimit) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, kReadTimeoutMs) <= 0) break;
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0) break;
    head.append(buf, static_cast<size_t>(n));
  }
  auto finish = [this, fd] {
    std::lock_guard<std::mutex> lock(mutex_);
    openFds_.erase(std::remove(openFds_.begin(), openFds_.end(), fd), openFds_.end());
    close(fd);
  };
  if (head.find("\r\n\r\n") == std::string::npos) {
    finish();
    return;
  }

  RecordedRequest request;
  std::istringstream lines(head.substr(0, head.find("\r\n\r\n")));
  std::string line;
  std::getline(lines, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  std::istringstream parts(line);
  parts >> request.method >> request.target;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    request.headers.emplace_back(line.substr(0, colon), value);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }

  int index = 0;
  Script s = scriptFor(request.target, &index);
  if (s.content) s.size = static_cast<long long>(s.content->size());

  long long first = 0, last = -1;
  bool ranged = parseRange(request.header("Range"), &first, &last);
  int status;
  long long begin = 0, length = 0;
  std::string body;
  std::vector<std::string> headers;
  if (ranged && s.rangeStatus != 0) {
    status = s.rangeStatus;
    headers.push_back("Content-Range: bytes */" + std::to_string(s.size));
    headers.push_back("Content-Length: 0");
  } else if (s.status != 0) {
    status = s.status;
    body = s.body;
    if (!s.location.empty()) headers.push_back("Location: " + s.location);
    headers.push_back("Content-Length: " + std::to_string(body.size()));
  } else {
    if (ranged && s.honourRange) {
      status = 206;
      begin = std::min(first, s.size);
      long long end = (last < 0 || last >= s.size) ? s.size - 1 : last;
      length = std::max(0LL, end - begin + 1);
    } else {
      status = 200;
      length = s.size;
    }
    if (s.contentLength && !s.unknownTotal) {
      headers.push_back("Content-Length: " + std::to_string(length));
    }
    if (status == 206) {
      headers.push_back("Content-Range: bytes " + std::to_string(begin) + "-" +
                        std::to_string(begin + length - 1) + "/" +
                        (s.unknownTotal ? std::string("*") : std::to_string(s.size)));
    }
    if (s.honourRange) headers.push_back("Accept-Ranges: bytes");
    headers.push_back("Content-Type: application/octet-stream");
  }
  for (const auto& h : s.extraHeaders) headers.push_back(h);
  headers.push_back("Connection: close");

  std::string out = s.statusLine.empty()
                        ? "HTTP/1.1 " + std::to_string(status) + " " + reason(status)
                        : s.statusLine;
  out += "\r\n";
  for (const auto& h : headers) out += h + "\r\n";
  out += "\r\n";

  if (s.headerDelayMs > 0 && !pause(s.headerDelayMs)) {
    finish();
    return;
  }
  if (!sendAll(fd, out.data(), out.size()) ||
      (!body.empty() && !sendAll(fd, body.data(), body.size()))) {
    finish();
    return;
  }
  long long dropAfter =
      s.dropPlan.empty()
          ? -1
          : s.dropPlan[std::min<size_t>(static_cast<size_t>(index), s.dropPlan.size() - 1)];
  bool drop = dropAfter >= 0;
  bool stall = s.stallAfter >= 0 && (s.stallTimes < 0 || index < s.stallTimes);
  std::vector<char> chunk(kChunk);
  long long sent = 0;
  while (sent < length && !stopping_) {
    if (stall && sent >= s.stallAfter) {
      stall = false;
      if (!pause(s.stallMs)) break;
    }
    long long n = std::min<long long>(kChunk, length - sent);
    if (drop) n = std::min(n, dropAfter - sent);
    if (stall) n = std::min(n, s.stallAfter - sent);
    if (n > 0) {
      if (s.content) {
        std::memcpy(chunk.data(), s.content->data() + begin + sent, static_cast<size_t>(n));
      } else {
        fillPattern(chunk.data(), begin + sent, n);
      }
      if (!sendAll(fd, chunk.data(), static_cast<size_t>(n))) break;
      sent += n;
      bytesSent_ += n;
    }
    if (drop && sent >= dropAfter) break;
  }
  finish();
}

}  // namespace testsupport
