// Logging: one guarded call into the Android log.
//
// Every message goes to __android_log_print with priority 3 (debug) and the
// tag "Lumora", and only while util::LOG_LEV is at least the message's
// threshold. CV_LOG reads the level at the call and evaluates its format
// arguments only when the line is printed, so a disabled line costs one
// integer compare on the hot path.
#ifndef CORVANE_DIAG_LOG_H_
#define CORVANE_DIAG_LOG_H_

#include <android/log.h>

namespace util {

// The process-wide verbosity: a larger value prints more; -4 at load.
// Read and written by every thread without a lock on purpose: a torn or stale
// read only changes which lines print.
extern int LOG_LEV;

constexpr int kLogPriority = ANDROID_LOG_DEBUG;
constexpr char kLogTag[] = "Lumora";

}  // namespace util

#define CV_LOG(threshold, ...)                                                \
  do {                                                                        \
    if (::util::LOG_LEV >= (threshold)) {                                     \
      ::__android_log_print(::util::kLogPriority, ::util::kLogTag, __VA_ARGS__); \
    }                                                                         \
  } while (0)

// True when a line at `threshold` would print now; for call sites that must
// compute something costly before they log.
#define CV_LOG_ON(threshold) (::util::LOG_LEV >= (threshold))

#endif  // CORVANE_DIAG_LOG_H_
