#include <lumora/uptime.h>

#include <time.h>

namespace lumora::client {

double uptime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::uint64_t frameID(double capturedAt) { return static_cast<std::uint64_t>(capturedAt * 1e6); }

}  // namespace lumora::client
