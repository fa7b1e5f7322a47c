// Captures the library's log lines for a test.
//
// Installs a liblog logger (after lowering liblog's minimum priority, which
// on the host drops debug lines otherwise) and records every line with its
// priority and tag. Lines are matched exactly, trailing "\n" included.
#ifndef CORVANE_TESTS_SUPPORT_LOG_CAPTURE_H_
#define CORVANE_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

class LogCapture {
 public:
  // Sets util::LOG_LEV to `level` for the capture's life, restoring it after.
  explicit LogCapture(int level = 3);
  ~LogCapture();

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  int count(const std::string& text) const;        // exact matches
  bool contains(const std::string& text) const { return count(text) > 0; }
  int countPrefix(const std::string& prefix) const;
  int countContaining(const std::string& part) const;  // lines with `part` anywhere
  // Index of the first exact match at or after `from`, or -1.
  int indexOf(const std::string& text, int from = 0) const;
  // Waits until `text` has been logged at least `times` times.
  bool waitFor(const std::string& text, int times = 1, int timeoutMs = 5000) const;
  void clear();
  // Runs `hook` on the logging thread with each line, after recording it
  // and outside the capture's lock, so a test can act at a given point of a
  // run. Cleared when the capture ends.
  void onLine(std::function<void(const std::string&)> hook);

 private:
  int savedLevel_;
};

// True when running `action` at log level `level` prints `text`.
bool printedAtLevel(const std::string& text, int level, const std::function<void()>& action);

// Checks that `text` prints exactly from `threshold` on: printed at the
// threshold, not printed one below it. Returns a description of the failure
// or an empty string.
std::string checkThreshold(const std::string& text, int threshold,
                           const std::function<void()>& action);

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_LOG_CAPTURE_H_
