#pragma once

namespace lumora {

// Seconds on the system's uptime clock: monotonic, shared by all processes of the machine.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double uptime() const = 0;
};

// The real uptime clock (CLOCK_MONOTONIC). Any thread.
double systemUptime();

class SystemClock final : public Clock {
 public:
  double uptime() const override { return systemUptime(); }
};

}  // namespace lumora
