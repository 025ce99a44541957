#include "mp4/movie_tables.h"

#include <algorithm>

#include "platform/movie_writer.h"

namespace lumora {

void MovieTables::addChunk(std::uint64_t offset, const std::vector<MovieSample>& samples) {
  chunks.push_back({offset, static_cast<std::uint32_t>(samples.size())});
  for (const MovieSample& sample : samples) {
    sizes.push_back(sample.size);
    durations.push_back(sample.duration);
    duration += sample.duration;
    if (sample.keyframe) keyframes.push_back(static_cast<std::uint32_t>(sizes.size()));
  }
}

void MovieTables::dropLast() {
  duration -= durations.back();
  if (!keyframes.empty() && keyframes.back() == sizes.size()) keyframes.pop_back();
  sizes.pop_back();
  durations.pop_back();
  if (--chunks.back().samples == 0) chunks.pop_back();
}

void MovieTables::endAt(std::uint64_t end) {
  while (!empty() && duration - durations.back() >= end) dropLast();
  if (empty()) return;
  duration -= durations.back();
  const auto last = std::min(end - duration, static_cast<std::uint64_t>(longestSample));
  durations.back() = static_cast<std::uint32_t>(last);
  duration += last;
}

void MovieTables::keepChunks(std::size_t count) {
  while (chunks.size() > count) dropLast();
}

}  // namespace lumora
