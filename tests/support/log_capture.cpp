#include "support/log_capture.h"

#include <android/log.h>

#include <mutex>

#include "diag/log.h"
#include "support/wait.h"

namespace testsupport {
namespace {

std::mutex gMutex;
std::vector<LogLine>* gLines = nullptr;
std::function<void(const std::string&)> gHook;

void captureLogger(const struct __android_logger_data* data, const char* message) {
  std::function<void(const std::string&)> hook;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gLines == nullptr) return;
    gLines->push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
    hook = gHook;
  }
  if (hook) hook(message ? message : "");
}

}  // namespace

LogCapture::LogCapture(int level) : savedLevel_(util::LOG_LEV) {
  {
    std::lock_guard<std::mutex> lock(gMutex);
    delete gLines;
    gLines = new std::vector<LogLine>();
  }
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(&captureLogger);
  util::LOG_LEV = level;
}

LogCapture::~LogCapture() {
  util::LOG_LEV = savedLevel_;
  std::lock_guard<std::mutex> lock(gMutex);
  // Lines from threads still running go nowhere once the capture ends.
  gHook = nullptr;
  gLines->clear();
  delete gLines;
  gLines = nullptr;
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(gMutex);
  return gLines ? *gLines : std::vector<LogLine>();
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> out;
  for (const LogLine& line : lines()) out.push_back(line.text);
  return out;
}

int LogCapture::count(const std::string& text) const {
  int n = 0;
  for (const LogLine& line : lines()) n += line.text == text ? 1 : 0;
  return n;
}

int LogCapture::countPrefix(const std::string& prefix) const {
  int n = 0;
  for (const LogLine& line : lines()) n += line.text.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
  return n;
}

void LogCapture::onLine(std::function<void(const std::string&)> hook) {
  std::lock_guard<std::mutex> lock(gMutex);
  gHook = std::move(hook);
}

int LogCapture::countContaining(const std::string& part) const {
  int n = 0;
  for (const LogLine& line : lines()) n += line.text.find(part) != std::string::npos ? 1 : 0;
  return n;
}

int LogCapture::indexOf(const std::string& text, int from) const {
  std::vector<LogLine> all = lines();
  for (int i = from; i < static_cast<int>(all.size()); ++i) {
    if (all[i].text == text) return i;
  }
  return -1;
}

bool LogCapture::waitFor(const std::string& text, int times, int timeoutMs) const {
  return testsupport::waitFor([&] { return count(text) >= times; }, timeoutMs);
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(gMutex);
  if (gLines) gLines->clear();
}

bool printedAtLevel(const std::string& text, int level, const std::function<void()>& action) {
  LogCapture capture(level);
  action();
  return capture.contains(text);
}

std::string checkThreshold(const std::string& text, int threshold,
                           const std::function<void()>& action) {
  if (!printedAtLevel(text, threshold, action)) {
    return "\"" + text + "\" not printed at level " + std::to_string(threshold);
  }
  if (printedAtLevel(text, threshold - 1, action)) {
    return "\"" + text + "\" printed at level " + std::to_string(threshold - 1);
  }
  return "";
}

}  // namespace testsupport
