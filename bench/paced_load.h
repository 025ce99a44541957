#pragma once

// Runs the helper under a steady load, and prints a line for each run.

#include <string>

#include "tools/paced_run.h"

namespace lumora::bench {

// A take of the size that `profile` names, such as "1080x720"; none for "none". Throws
// std::runtime_error for a size that no take has.
std::optional<client::TakeOptions> takeOf(const std::string& profile, int targetFPS,
                                          const std::string& path);

// If the environment has MEMORY=settled, first touches memory, so that the host of a virtual
// machine gives back what it took. Removes the movie of the run before. Then calls
// `tools::runPaced`. Throws as that does, and std::runtime_error if the helper or the take fails.
tools::RunReport runLoad(const tools::RunOptions& load, tools::FrameSource& source);

struct Delivered {
  std::uint64_t frames = 0;       // that a client received, on average
  std::uint64_t lostAtStart = 0;  // frames of the first second that it did not receive
};
Delivered delivered(const tools::RunOptions& load, const tools::RunReport& report);

void print(const tools::RunOptions& load, const tools::FrameSource& source,
           const tools::RunReport& report);

}  // namespace lumora::bench
