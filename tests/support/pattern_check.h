// A gtest check that received bytes are exactly the pattern resource's
// content over a span, so every byte a test reads is verified.
#ifndef CORVANE_TESTS_SUPPORT_PATTERN_CHECK_H_
#define CORVANE_TESTS_SUPPORT_PATTERN_CHECK_H_

#include <string>

#include <gtest/gtest.h>

#include "support/scripted_http_server.h"

namespace testsupport {

// Success when `bytes` holds `size` bytes equal to the pattern from `from`.
inline ::testing::AssertionResult isPatternAt(const std::string& bytes, long long from,
                                              long long size) {
  if (static_cast<long long>(bytes.size()) != size) {
    return ::testing::AssertionFailure() << bytes.size() << " bytes, wanted " << size;
  }
  long long bad = firstPatternMismatch(bytes.data(), from, size);
  if (bad != -1) return ::testing::AssertionFailure() << "wrong byte at offset " << from + bad;
  return ::testing::AssertionSuccess();
}

}  // namespace testsupport

#endif  // CORVANE_TESTS_SUPPORT_PATTERN_CHECK_H_
