#pragma once

namespace lumora {

// Seconds on the system's uptime clock: monotonic, shared by all processes of the machine.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double uptime() const = 0;
};

}  // namespace lumora
