#include "mp4/movie_tables.h"

#include <algorithm>

#include "platform/movie_writer.h"

namespace lumora {

void MovieTables::addChunk(std::uint64_t offset, const std::vector<MovieSample>& samples) {
  chunks_.push_back({offset, static_cast<std::uint32_t>(samples.size())});
  for (const MovieSample& sample : samples) {
    sizes_.push_back(sample.size);
    durations_.push_back(sample.duration);
    duration_ += sample.duration;
    if (sample.keyframe) keyframes_.push_back(static_cast<std::uint32_t>(sizes_.size()));
  }
}

void MovieTables::endAt(std::uint64_t end) {
  while (!empty() && duration_ - durations_.back() >= end) {
    duration_ -= durations_.back();
    if (!keyframes_.empty() && keyframes_.back() == sizes_.size()) keyframes_.pop_back();
    sizes_.pop_back();
    durations_.pop_back();
    if (--chunks_.back().samples == 0) chunks_.pop_back();
  }
  if (empty()) return;
  duration_ -= durations_.back();
  const auto last = std::min(end - duration_, static_cast<std::uint64_t>(longestSample));
  durations_.back() = static_cast<std::uint32_t>(last);
  duration_ += last;
}

}  // namespace lumora
