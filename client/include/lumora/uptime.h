#pragma once

#include <cstdint>

#include <lumora/export.h>

namespace lumora::client {

// The time on the helper's clock for frames and takes (CLOCK_MONOTONIC), in seconds.
LUMORA_CLIENT_EXPORT double uptime();

// The id for a frame that was captured at this uptime: the microseconds of the uptime. Any growing
// ids are allowed, but from these a viewer can tell how old a picture is. JavaScript holds them
// exactly for 285 years.
LUMORA_CLIENT_EXPORT std::uint64_t frameID(double capturedAt);

}  // namespace lumora::client
