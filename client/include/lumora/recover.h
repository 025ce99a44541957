#pragma once

// Recovers takes that a crash or a power cut has interrupted.

#include <cstdint>
#include <string>
#include <vector>

#include <lumora/export.h>

namespace lumora::client {

struct RecoveredTake {
  std::string staging;       // the file's old path
  std::string path;          // of the movie; empty: there is none
  std::uint64_t frames = 0;  // in the movie
  double duration = 0;       // of the movie, seconds
  std::string left;          // why the file keeps its old name; empty: it has a new one
};

// Makes an ordinary movie of each interrupted take in a folder. Does not touch takes that are being
// recorded. Waits for the disk. Needs the program lumora-recover in the helper's folder. `program`
// is that of HelperOptions. Throws std::runtime_error if the folder can't be read.
LUMORA_CLIENT_EXPORT std::vector<RecoveredTake> recoverTakes(const std::string& folder,
                                                             const std::string& program = {});

}  // namespace lumora::client
