#pragma once

#include <lumora/take.h>

#include <vector>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

// The options for a take that the page wants, with a free file name. Waits for the disk. Throws
// std::runtime_error if there is no such folder or size; its message is for people.
client::TakeOptions planTake(const StartTake& wanted, client::Uptime::time_point startedAt);

// The number of staging files in a folder. Each interrupted or running take has one. 0 if the
// folder can't be read.
std::size_t countInterruptedTakes(const std::string& folder);
// Calls `client::recoverTakes`, and throws what that throws. Returns one line for each take, for
// people.
std::vector<std::string> recoverTakes(const std::string& folder,
                                      const std::filesystem::path& helper);

}  // namespace lumora::viewer
