#include "mp4/movie_track.h"

#include <algorithm>

namespace lumora {

std::uint64_t MovieTrack::playedDuration() const {
  if (picture) return tables.duration;
  const std::uint64_t hidden = std::min<std::uint64_t>(sound.priming, tables.duration);
  // Rounded up, so that an edit list with this duration plays the last PCM sample to its end.
  return ((tables.duration - hidden) * movieTimescale + sound.rate - 1) / sound.rate;
}

void MovieTrack::endAt(std::uint64_t end) {
  if (picture) return tables.endAt(end);
  tables.endAt(std::min(tables.duration, sound.priming + end * sound.rate / movieTimescale));
}

}  // namespace lumora
