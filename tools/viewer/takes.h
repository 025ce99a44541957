#pragma once

#include <lumora/take.h>

#include <vector>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

// The options for a take that the page wants, with a free file name. `startedAt` is seconds of the
// uptime clock. Throws std::runtime_error if there is no such folder; its message is for people.
client::TakeOptions planTake(const StartTake& wanted, double startedAt);

// How many staging files are in a folder, those of running takes included.
std::size_t countInterruptedTakes(const std::string& folder);
// Calls `client::recoverTakes`, and throws what that throws. Returns a line for people per take.
std::vector<std::string> recoverTakes(const std::string& folder, const std::string& helper);

}  // namespace lumora::viewer
