#pragma once

// One track of a movie: pictures, or sound in packets of AAC-LC. Pure.

#include <memory>

#include "mp4/movie_tables.h"
#include "platform/movie_writer.h"

namespace lumora {

struct MovieTrack {
  std::uint32_t id = 0;                                   // must be set; 0 is no valid id
  std::shared_ptr<const FormatDescription> picture = {};  // null in a track of sound
  AacFormat sound = {};                                   // used only in a track of sound
  MovieTables tables = {};

  // Units of `tables` in a second.
  std::uint32_t timescale() const { return picture ? movieTimescale : sound.rate; }
  // How long the track is shown or heard, in movie units.
  std::uint64_t playedDuration() const;
  // Ends the track at `end` in movie units. Sound that ends earlier stays as it is.
  void endAt(std::uint64_t end);
};

}  // namespace lumora
