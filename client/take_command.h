#pragma once

// What a parent says of its takes, as JSON text. Pure, but for the clock and the random source.

#include <lumora/take.h>

#include <string>

namespace lumora::client {

std::string randomTakeID();  // a UUID

// Throw std::invalid_argument for options that make no command, and for times that a helper
// refuses.
std::string startCommand(const std::string& id, const TakeOptions& options, double startedAt);
std::string stopCommand(const std::string& id, double stoppedAt);

}  // namespace lumora::client
