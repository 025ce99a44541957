#pragma once

namespace lumora::client {

// The clock that the helper times frames and takes on (CLOCK_MONOTONIC), in seconds: what
// "started_at" and "stopped_at" of a command are read from.
double uptime();

}  // namespace lumora::client
