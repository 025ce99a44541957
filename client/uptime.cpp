#include <lumora/uptime.h>

#include <time.h>

#include <cmath>

namespace lumora::client {

Uptime::time_point Uptime::now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

std::uint64_t frameID(Uptime::time_point capturedAt) {
  return static_cast<std::uint64_t>(std::llround(capturedAt.time_since_epoch().count() * 1e6));
}

}  // namespace lumora::client
