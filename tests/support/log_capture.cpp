// LogCapture: the library's lines, through a liblog logger of the test's.
#include <android/log.h>

#include <cstring>
#include <thread>

#include "diag/log.h"
#include "support/support.h"

namespace testsupport {

namespace {
std::mutex gMutex;
std::vector<std::string>* gLines = nullptr;
std::string gHoldPart;
int gHoldMs = 0;

void captureLogger(const struct __android_logger_data*, const char* message) {
  int hold = 0;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gLines != nullptr) gLines->push_back(message ? message : "");
    if (gHoldMs > 0 && message && std::strstr(message, gHoldPart.c_str())) hold = gHoldMs;
  }
  if (hold > 0) std::this_thread::sleep_for(std::chrono::milliseconds(hold));
}
}  // namespace

LogCapture::LogCapture(int level) : savedLevel_(util::LOG_LEV) {
  {
    std::lock_guard<std::mutex> lock(gMutex);
    delete gLines;
    gLines = new std::vector<std::string>();
  }
  // Host liblog drops debug lines unless the minimum is lowered.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(&captureLogger);
  util::LOG_LEV = level;
}

LogCapture::~LogCapture() {
  util::LOG_LEV = savedLevel_;
  std::lock_guard<std::mutex> lock(gMutex);
  delete gLines;  // lines of threads still running go nowhere from now on
  gLines = nullptr;
  gHoldMs = 0;
}

std::vector<std::string> LogCapture::texts() const {
  std::lock_guard<std::mutex> lock(gMutex);
  return gLines ? *gLines : std::vector<std::string>();
}

int LogCapture::count(const std::string& text) const {
  int n = 0;
  for (const std::string& line : texts()) n += line == text;
  return n;
}

int LogCapture::countContaining(const std::string& part) const {
  int n = 0;
  for (const std::string& line : texts()) n += line.find(part) != std::string::npos;
  return n;
}

void LogCapture::holdAt(const std::string& part, int ms) {
  std::lock_guard<std::mutex> lock(gMutex);
  gHoldPart = part;
  gHoldMs = ms;
}

bool LogCapture::waitFor(const std::string& text, int timeoutMs) const {
  return testsupport::waitFor([&] { return contains(text); }, timeoutMs);
}

}  // namespace testsupport
