#include "support/support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "corvane/smart_file.h"

namespace testsupport {

void fillPattern(char* out, long long offset, long long count) {
  for (long long i = 0; i < count; ++i) out[i] = static_cast<char>(patternByte(offset + i));
}

std::string patternBytes(long long offset, long long count) {
  std::string s(static_cast<size_t>(count), '\0');
  fillPattern(s.data(), offset, count);
  return s;
}

long long firstPatternMismatch(const char* data, long long offset, long long count) {
  for (long long i = 0; i < count; ++i) {
    if (static_cast<uint8_t>(data[i]) != patternByte(offset + i)) return i;
  }
  return -1;
}

TempDir::TempDir() {
  std::string templ = (std::filesystem::temp_directory_path() / "corvane-XXXXXX").string();
  if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  return file(name);
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void Gate::open() {
  std::lock_guard<std::mutex> lock(mutex_);
  open_ = true;
  cond_.notify_all();
}

bool Gate::pass(int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return open_; });
}

std::string readBytes(int handle, long long size, int piece, int* code) {
  std::string out;
  std::vector<char> buf(static_cast<size_t>(piece));
  *code = 0;
  while (static_cast<long long>(out.size()) < size) {
    unsigned long got = 0;
    int n = static_cast<int>(std::min<long long>(piece, size - static_cast<long long>(out.size())));
    *code = x_smart_file_read(handle, buf.data(), n, &got);
    out.append(buf.data(), got);
    if (*code != 0 || got == 0) break;
  }
  return out;
}

Handle::Handle(const std::string& location, int bufferSize) {
  opened = bufferSize > 0 ? x_smart_file_open_x(location.c_str(), &id, bufferSize)
                          : x_smart_file_open(location.c_str(), &id);
}

int Handle::close() {
  int r = id > 0 ? x_smart_file_close(id) : SMFR_FAILED;
  id = -1;
  return r;
}

int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace testsupport
