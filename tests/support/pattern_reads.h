// Pattern content through the C interface in tests: pattern files, the
// expected bytes and a count of wrong ones (PatternProducer's pattern).
#ifndef CORVANE_TESTS_SUPPORT_PATTERN_READS_H_
#define CORVANE_TESTS_SUPPORT_PATTERN_READS_H_

#include <string>

#include "corvane/smart_file.h"
#include "support/pattern_producer.h"
#include "support/read_bytes.h"
#include "support/temp_dir.h"

namespace testsupport {

inline std::string patternBytes(long long from, long long size) {
  std::string s(static_cast<size_t>(size), '\0');
  for (long long i = 0; i < size; ++i) {
    s[static_cast<size_t>(i)] = static_cast<char>(patternByte(from + i));
  }
  return s;
}

// Number of bytes of `data` that differ from the pattern at `from`.
inline long long patternMismatches(const char* data, long long from, long long size) {
  long long bad = 0;
  for (long long i = 0; i < size; ++i) {
    bad += static_cast<unsigned char>(data[i]) != patternByte(from + i);
  }
  return bad;
}

inline std::string writePatternFile(const TempDir& dir, const std::string& name, long long size) {
  return dir.write(name, patternBytes(0, size));
}

// Writes a pattern file of `size` bytes into `dir` and opens it: the handle,
// or -1 when the open failed.
inline int openPatternFile(const TempDir& dir, long long size) {
  int h = -1;
  return x_smart_file_open(writePatternFile(dir, "f", size).c_str(), &h) == SMFR_OK ? h : -1;
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_PATTERN_READS_H_
