#include "mp4/movie_tables.h"

#include <algorithm>

#include "platform/movie_writer.h"

namespace lumora {

void MovieTables::addChunk(std::uint64_t offset, const std::vector<MovieSample>& samples,
                           std::uint32_t fragment) {
  for (const MovieSample& sample : samples) {
    sizes.push_back(sample.size);
    durations.push_back(sample.duration);
    duration += sample.duration;
    if (sample.keyframe) keyframes.push_back(static_cast<std::uint32_t>(sizes.size()));
  }
  chunks.push_back({offset, static_cast<std::uint32_t>(samples.size()), fragment});
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

std::size_t MovieTables::samplesIn(std::size_t fragments) const {
  std::size_t samples = 0;
  for (const MovieChunk& chunk : chunks) samples += chunk.fragment <= fragments ? chunk.samples : 0;
  return samples;
}

void MovieTables::keepFragments(std::size_t fragments) {
  const std::size_t samples = samplesIn(fragments);
  std::erase_if(chunks, [=](const MovieChunk& chunk) { return chunk.fragment > fragments; });
  sizes.resize(samples);
  while (!keyframes.empty() && keyframes.back() > samples) keyframes.pop_back();
  for (; durations.size() > samples; durations.pop_back()) duration -= durations.back();
}

}  // namespace lumora
