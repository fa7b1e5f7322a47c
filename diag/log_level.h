// The run-time log level: the level file read once per process, and the
// exported functions through which clients set and read the level.
#ifndef CORVANE_DIAG_LOG_LEVEL_H_
#define CORVANE_DIAG_LOG_LEVEL_H_

#include "corvane/log_level.h"

namespace util {

// The level file a device carries, and the fallback that is opened but never
// read (kept as devices in the field expect).
constexpr char kLogLevelFile[] = "/data/vendor/3rd_rw/lumora/log_level";
constexpr char kLogLevelFallbackFile[] = "/data/lumora/log_level";

// detectLoglevel() with the two paths given, so the parsing can be driven
// from temporary files. Reads at most two characters of `primary` as "%d".
void detectLoglevelFrom(const char* primary, const char* fallback);

}  // namespace util

// Reads the level file; called by the first ThreadEngine initialisation only.
void detectLoglevel();

#endif  // CORVANE_DIAG_LOG_LEVEL_H_
