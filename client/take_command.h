#pragma once

// What a parent says of its takes, as JSON text. Pure, but for the clock and the random source.

#include <lumora/take.h>

#include <string>

namespace lumora::client {

std::string randomTakeID();  // a UUID

// Throws std::invalid_argument for options that make no command.
std::string startCommand(const std::string& id, const TakeOptions& options);
std::string stopCommand(const std::string& id, double stoppedAt);

}  // namespace lumora::client
