// What every target begins with: nothing is reported, and what should hold and does not ends the
// run.
#pragma once

#include <kel/logging.h>

#include <cstdlib>

inline void require(bool condition) {
  if (!condition) std::abort();
}

inline const bool is_silent = [] {
  kelLogSetFlags(KEL_LOG_NONE, 0);
  return true;
}();
