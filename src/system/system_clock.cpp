#include "system/system_clock.h"

#include <time.h>

namespace lumora {

double SystemClock::uptime() const {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace lumora
