#pragma once

#include <lumora/take.h>

#include <vector>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

// What to ask of the helper for a take that the page wants, in a file with a name that is free.
// `startedAt` is seconds of the uptime clock. Throws std::runtime_error when there is no such
// folder; its message is for people.
client::TakeOptions planTake(const StartTake& wanted, double startedAt);

// How many files of interrupted takes lie in a folder, those of running ones included.
std::size_t countInterruptedTakes(const std::string& folder);
// Recovers them, as `client::recoverTakes` does and throws. A line for people about each.
std::vector<std::string> recoverTakes(const std::string& folder, const std::string& helper);

}  // namespace lumora::viewer
