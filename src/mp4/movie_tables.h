#pragma once

// What the tables of a movie file say about the samples of a track. In memory, this takes some two
// megabytes for an hour at 60 pictures a second. Pure.

#include <cstdint>
#include <vector>

namespace lumora {

struct MovieSample {
  std::uint32_t size = 0;      // bytes
  std::uint32_t duration = 0;  // units of the track
  bool keyframe = false;
};

// Consecutive samples without anything between them in the file.
struct MovieChunk {
  std::uint64_t offset = 0;  // of the first sample's first byte in the file
  std::uint32_t samples = 0;
  std::uint32_t fragment = 0;  // counted from 1 over all tracks; 0 in a recovered movie
};

struct MovieTables {
  std::vector<std::uint32_t> sizes;
  std::vector<std::uint32_t> durations;
  std::vector<std::uint32_t> keyframes;  // sample numbers, counted from 1
  std::vector<MovieChunk> chunks;
  std::uint64_t duration = 0;  // units of the track

  // Adds `samples`, of which there is at least one. They lie together at `offset`.
  void addChunk(std::uint64_t offset, const std::vector<MovieSample>& samples,
                std::uint32_t fragment);
  // Drops the last sample. The tables must not be empty.
  void dropLast();
  // Drops the samples that begin at `end` or later. The last sample left is stretched or cut, so
  // that it ends at `end`. Its new duration is limited to `longestSample`.
  void endAt(std::uint64_t end);
  // The number of samples in the first `fragments` fragments of the file.
  std::size_t samplesIn(std::size_t fragments) const;
  // Keeps only the samples of the first `fragments` fragments. Also removes what is left of an
  // `addChunk` that threw.
  void keepFragments(std::size_t fragments);
  bool empty() const { return sizes.empty(); }
};

}  // namespace lumora
