#pragma once

#include <cstdint>

#include <lumora/export.h>

namespace lumora::client {

// The clock that the helper times frames and takes on (CLOCK_MONOTONIC), in seconds: what
// "started_at" and "stopped_at" of a command are read from.
LUMORA_CLIENT_EXPORT double uptime();

// The id to give a frame that was captured at this uptime: microseconds. Ids only have to grow;
// those that say when let whoever watches tell how old a picture is. Exact in JavaScript, too, for
// 285 years.
LUMORA_CLIENT_EXPORT std::uint64_t frameID(double capturedAt);

}  // namespace lumora::client
