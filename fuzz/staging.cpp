// Fuzzes the files of interrupted takes. Finishes the movie that was read, and reads it again.

#include <algorithm>
#include <stdexcept>

#include "fuzz/fuzzed_service.h"
#include "mp4/movie_boxes.h"
#include "mp4/staging_movie.h"

namespace lumora {
namespace {

StagingMovie read(const Bytes& bytes) {
  return readStagingMovie({bytes.size(), [&](std::uint64_t offset, MutableByteView space) {
                             require(offset <= bytes.size());
                             require(space.size() <= bytes.size() - offset);
                             std::copy_n(bytes.data() + offset, space.size(), space.data());
                           }});
}

void fuzzStaging(Bytes bytes) {
  StagingMovie movie;
  try {
    movie = read(bytes);
  } catch (const std::runtime_error&) {  // the file can't become a movie
    return;
  }
  require(movie.frames > 0);
  if (movie.isFinished) return;
  for (const MovieTrack& track : movie.tracks) {
    auto size = track.tables.sizes.begin();
    for (const MovieChunk& chunk : track.tables.chunks) {
      std::uint64_t end = chunk.offset;
      for (std::uint32_t i = 0; i < chunk.samples; ++i) end += *size++;
      require(end <= bytes.size());
    }
    require(size == track.tables.sizes.end());
  }
  const Bytes tables = movieEnd(movie.tracks, movie.properties);
  require(tables.size() <= maximumMovieEndBytes(movie.tracks));
  const Bytes head = wideMediaDataHeader(bytes.size() - movie.placeholder);
  bytes.insert(bytes.end(), tables.begin(), tables.end());
  std::ranges::copy(head, bytes.begin() + static_cast<std::ptrdiff_t>(movie.placeholder));
  const StagingMovie finished = read(bytes);
  require(finished.isFinished && finished.frames == movie.frames);
  require(finished.duration == movie.duration);
}

}  // namespace
}  // namespace lumora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lumora::fuzzStaging({data, data + size});
  return 0;
}
