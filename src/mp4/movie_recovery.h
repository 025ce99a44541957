#pragma once

// Finishes the movies of takes that a crash or a power cut has interrupted.

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace lumora {

struct RecoveredTake {
  std::string staging;       // the file's old path
  std::string path = {};     // of the movie; empty: there is none
  std::uint64_t frames = 0;  // in the movie
  double duration = 0;       // of the movie, seconds
  std::string left = {};     // why the file keeps its old name; empty: it has a new one
};

// The paths of the staging files in a folder, sorted. Throws std::system_error if it can't be
// read.
std::vector<std::string> findStagingFiles(const std::string& folder);

// Turns the staging file at this absolute path into an ordinary movie and gives it its recovery
// name. A log of frames beside it gets the matching name, unless that name is taken. `now` is the
// current time. Does not touch a take whose recording may still be running, or a file without a
// picture. If a power cut interrupts the recovery at any moment, the file can still be recovered.
// Problems with the file are reported in `left`, not thrown.
RecoveredTake recoverTake(const std::string& staging, std::time_t now);

}  // namespace lumora
