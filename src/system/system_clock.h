#pragma once

#include "platform/clock.h"

namespace lumora {

// CLOCK_MONOTONIC. Any thread.
class SystemClock final : public Clock {
 public:
  double uptime() const override;
};

}  // namespace lumora
