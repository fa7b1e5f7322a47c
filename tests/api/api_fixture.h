// Helpers for tests of the C interface: pattern files and checked reads.
#ifndef CORVANE_TESTS_API_API_FIXTURE_H_
#define CORVANE_TESTS_API_API_FIXTURE_H_

#include <string>
#include <vector>

#include "corvane/smart_file.h"
#include "support/temp_dir.h"
#include "tests/file/scripted_producer.h"

namespace testsupport {

inline std::string patternBytes(long long from, long long size) {
  std::string s(static_cast<size_t>(size), '\0');
  for (long long i = 0; i < size; ++i) s[static_cast<size_t>(i)] = patternByte(from + i);
  return s;
}

// Number of bytes of `data` that differ from the pattern at `from`.
inline long long patternMismatches(const char* data, long long from, long long size) {
  long long bad = 0;
  for (long long i = 0; i < size; ++i) bad += data[i] != patternByte(from + i) ? 1 : 0;
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

// Reads until `want` bytes, the end or a failure; the last code in *code.
inline std::string readAll(int handle, long long want, int chunk, int* code) {
  std::string out;
  std::vector<char> buf(static_cast<size_t>(chunk));
  *code = 0;
  while (static_cast<long long>(out.size()) < want) {
    unsigned long got = 0;
    int n = static_cast<int>(std::min<long long>(chunk, want - static_cast<long long>(out.size())));
    *code = x_smart_file_read(handle, buf.data(), n, &got);
    out.append(buf.data(), got);
    if (*code != 0) break;
  }
  return out;
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_API_API_FIXTURE_H_
