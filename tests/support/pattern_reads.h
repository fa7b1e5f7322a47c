// Pattern content through the C interface in tests: pattern files, the
// expected bytes, a count of wrong ones and a read loop over a handle.
#ifndef CORVANE_TESTS_SUPPORT_PATTERN_READS_H_
#define CORVANE_TESTS_SUPPORT_PATTERN_READS_H_

#include <algorithm>
#include <string>
#include <vector>

#include "corvane/smart_file.h"
#include "support/pattern_producer.h"
#include "support/temp_dir.h"

namespace testsupport {

inline std::string patternBytes(long long from, long long size) {
  std::string s(static_cast<size_t>(size), '\0');
  for (long long i = 0; i < size; ++i) s[static_cast<size_t>(i)] = static_cast<char>(patternByte(from + i));
  return s;
}

// Number of bytes of `data` that differ from the pattern at `from`.
inline long long patternMismatches(const char* data, long long from, long long size) {
  long long bad = 0;
  for (long long i = 0; i < size; ++i) bad += static_cast<unsigned char>(data[i]) != patternByte(from + i);
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

// Reads `size` bytes at the current position in pieces of `piece`; the bytes
// got, stopping at the first failure, end or empty read (its code in *code).
inline std::string readBytes(int handle, long long size, int piece, int* code) {
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

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_PATTERN_READS_H_
