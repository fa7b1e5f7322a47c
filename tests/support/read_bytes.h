// A read loop over a handle of the C interface, for tests.
#ifndef CORVANE_TESTS_SUPPORT_READ_BYTES_H_
#define CORVANE_TESTS_SUPPORT_READ_BYTES_H_

#include <algorithm>
#include <string>
#include <vector>

#include "corvane/smart_file.h"

namespace testsupport {

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

#endif  // CORVANE_TESTS_SUPPORT_READ_BYTES_H_
