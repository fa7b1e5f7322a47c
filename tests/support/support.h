// What every test shares: the pattern content (checkable at any offset),
// temporary directories, waits with deadlines, the library's log lines, and
// reads through the C interface.
#ifndef CORVANE_TESTS_SUPPORT_SUPPORT_H_
#define CORVANE_TESTS_SUPPORT_SUPPORT_H_

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

// Not periodic at any small power of two, so a byte from a wrong offset shows.
inline uint8_t patternByte(long long offset) {
  return static_cast<uint8_t>((offset * 7) ^ (offset >> 8) * 13 ^ (offset >> 16) * 31);
}
void fillPattern(char* out, long long offset, long long count);
std::string patternBytes(long long offset, long long count);
// Index of the first byte differing from the pattern at `offset`, or -1.
long long firstPatternMismatch(const char* data, long long offset, long long count);
inline ::testing::AssertionResult isPatternAt(const std::string& bytes, long long offset,
                                              long long size) {
  if (static_cast<long long>(bytes.size()) != size) {
    return ::testing::AssertionFailure() << bytes.size() << " bytes, wanted " << size;
  }
  long long bad = firstPatternMismatch(bytes.data(), offset, size);
  if (bad != -1) return ::testing::AssertionFailure() << "wrong byte at offset " << offset + bad;
  return ::testing::AssertionSuccess();
}

class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& content) const;
  std::string writePattern(const std::string& name, long long size) const {
    return write(name, patternBytes(0, size));
  }

 private:
  std::string path_;
};

using Clock = std::chrono::steady_clock;
inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Polls `condition` until it holds or `timeoutMs` passed; its last answer.
bool waitFor(const std::function<bool()>& condition, int timeoutMs = 5000);
// For "must not happen": only a bounded observation is possible.
inline bool staysFalse(const std::function<bool()>& condition, int ms) {
  return !waitFor(condition, ms);
}

// Test callbacks block on it until the test opens it (with a deadline, so a
// forgotten gate cannot hang the run).
class Gate {
 public:
  void open();
  bool pass(int timeoutMs = 10000);

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

// Records the library's lines at log level `level` for the capture's life.
class LogCapture {
 public:
  explicit LogCapture(int level = 3);
  ~LogCapture();
  std::vector<std::string> texts() const;
  int count(const std::string& text) const;  // exact matches, "\n" included
  bool contains(const std::string& text) const { return count(text) > 0; }
  int countContaining(const std::string& part) const;
  bool waitFor(const std::string& text, int timeoutMs = 5000) const;
  // The thread logging a line that contains `part` sleeps `ms` after it:
  // a way to hold a library thread between two of its steps.
  void holdAt(const std::string& part, int ms);

 private:
  int savedLevel_;
};

// Reads up to `size` bytes in pieces of `piece` through the C interface;
// stops at the first failure, end or empty read (its code in *code).
std::string readBytes(int handle, long long size, int piece, int* code);

// An open handle, closed at scope end unless closed already.
struct Handle {
  explicit Handle(const std::string& location, int bufferSize = 0);
  ~Handle() { close(); }
  int close();
  int id = -1;
  int opened = -1;
};

// A loopback port the kernel hands out and takes back: free for a server
// to take, refused to clients until one does.
int freePort();

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_SUPPORT_H_
