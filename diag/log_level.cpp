#include "diag/log_level.h"

#include <cstdio>
#include <fstream>

#include "diag/log.h"

namespace util {

void detectLoglevelFrom(const char* primary, const char* fallback) {
  std::ifstream in(primary, std::ios::in);
  if (in.is_open()) {
    // Only two characters are read: "-12" gives -1 and "100" gives 10.
    char text[3] = {0, 0, 0};
    in.read(text, 2);
    if (in.gcount() >= 1) {
      int level = 0;
      std::sscanf(text, "%d", &level);
      LOG_LEV = level;
    }
    in.close();
  } else {
    // The fallback is only opened and closed; its content never counts.
    std::ifstream other(fallback, std::ios::in);
    other.close();
  }
  CV_LOG(-2, "Log level==%d\n", LOG_LEV);
}

}  // namespace util

void detectLoglevel() { util::detectLoglevelFrom(util::kLogLevelFile, util::kLogLevelFallbackFile); }

extern "C" {

void x_smart_file_set_log_level(int level) { util::LOG_LEV = level; }

int x_smart_file_get_log_level(void) { return util::LOG_LEV; }

// -1 on purpose: it lies above the default -4, so the most important lines
// (thresholds -5 to -1) still print; only the chatty ones are silenced.
void x_smart_file_disable_log(void) { util::LOG_LEV = -1; }

}  // extern "C"
