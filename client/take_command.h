#pragma once

// The commands that start and stop a take, as JSON text. Pure, except for the clock and the random
// source.

#include <lumora/take.h>

#include <string>

namespace lumora::client {

std::string randomTakeID();  // a UUID

// `startCommand` and `stopCommand` throw std::invalid_argument for a time more than 30 s ago or
// more than 50 ms ahead. `startCommand` also throws it for other options outside their limits.
std::string startCommand(const std::string& id, const TakeOptions& options,
                         Uptime::time_point startedAt);
std::string stopCommand(const std::string& id, Uptime::time_point stoppedAt);

}  // namespace lumora::client
