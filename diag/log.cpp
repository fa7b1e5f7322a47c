#include "diag/log.h"

namespace util {

// Static data: set before any initialiser runs, touched by no load-time code.
int LOG_LEV = -4;

}  // namespace util
