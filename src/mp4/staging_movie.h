#pragma once

// Reads the file of an interrupted take. It has the boxes of movie_boxes.h. They may be cut off at
// any byte, and other bytes may follow. Reads all headers, but only the samples of each track's
// last fragment.

#include <functional>

#include "mp4/movie_boxes.h"

namespace lumora {

// A file. `read` fills `space` with the bytes of the file from `offset` on. All of them must lie
// within `size`. `read` may throw std::system_error.
struct FileView {
  std::uint64_t size = 0;
  std::function<void(std::uint64_t offset, MutableByteView space)> read;
};

struct StagingMovie {
  bool isFinished = false;        // it is an ordinary movie already
  std::uint64_t placeholder = 0;  // its offset in the file
  MovieProperties properties = {};
  std::vector<MovieTrack> tracks;  // with the samples that are whole in the file
  std::uint64_t frames = 0;        // pictures, at least one
  double duration = 0;             // of the pictures, seconds
};

// An unfinished movie has a track of pictures, and then perhaps a track of sound. For a finished
// movie, `tracks` stays empty. Throws std::runtime_error if the file can't become a movie. Its
// message is for a person.
StagingMovie readStagingMovie(const FileView& file);

}  // namespace lumora
