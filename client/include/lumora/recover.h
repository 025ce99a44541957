#pragma once

// Recovers takes that a crash or a power cut has interrupted.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <lumora/export.h>
#include <lumora/uptime.h>

namespace lumora::client {

struct RecoveredTake {
  std::filesystem::path staging;  // the file's old path
  std::filesystem::path path;     // of the movie; empty: there is none
  std::uint64_t frames = 0;       // in the movie
  Seconds duration{};             // of the movie
  std::string left;               // why the file keeps its old name; empty: it has a new one
};

// Makes an ordinary movie of each interrupted take in a folder. Does not touch a file that has no
// picture, that a helper may still be writing, or that changed less than a minute ago; `left` says
// why. Waits for the disk. `program` is the helper, as in HelperOptions; lumora-recover must be in
// its folder. Throws std::runtime_error if the folder can't be read, or one of the two programs is
// missing. If the application ignores SIGCHLD, a lumora-recover that crashes goes unnoticed.
LUMORA_CLIENT_EXPORT std::vector<RecoveredTake> recoverTakes(
    const std::filesystem::path& folder, const std::filesystem::path& program = {});

}  // namespace lumora::client
