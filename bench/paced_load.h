#pragma once

// Runs the helper under a steady load, and prints a line for each run.

#include <string>

#include "tools/paced_run.h"

namespace lumora::bench {

// A take with this profile; none for "none".
std::optional<client::TakeOptions> takeOf(const std::string& profile, int targetFPS,
                                          const std::string& path);

// Touches memory if the environment has MEMORY=settled, removes the movie of the run before, and
// calls `tools::runPaced`.
tools::RunReport runLoad(const tools::RunOptions& load, tools::FrameSource& source);

struct Delivered {
  std::uint64_t frames = 0;       // that a client received, on average
  std::uint64_t lostAtStart = 0;  // frames of the first second that it did not receive
};
Delivered delivered(const tools::RunOptions& load, const tools::RunReport& report);

void print(const tools::RunOptions& load, const tools::FrameSource& source,
           const tools::RunReport& report);

}  // namespace lumora::bench
