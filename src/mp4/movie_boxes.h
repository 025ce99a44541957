#pragma once

// The boxes of our MP4 files (ISO/IEC 14496-12 and -15). Pure: tables in, bytes out.
//
// While recording:   ftyp | free, 16 bytes | moov with mvex | moof mdat | moof mdat | ...
// Once finished:     ftyp | mdat, 64-bit size, over all of that                   | moov
//
// The 16 bytes of the `free` box become the header of the one `mdat`, which turns the fragmented
// file into an ordinary one with a single small write.

#include <vector>

#include "mp4/movie_tables.h"
#include "platform/sample.h"

namespace lumora {

struct MovieProperties {
  std::uint64_t created = 0;  // seconds since 1904
  int rotation = 0;           // of the picture when it is shown, clockwise: 0, 90, 180 or 270
};

// `ftyp`, the placeholder and the `moov` of a movie that has no samples yet.
Bytes movieStart(const FormatDescription& format, const MovieProperties& properties);
// Where the placeholder lies in `movieStart`, in bytes.
std::uint64_t placeholderOffset();

// The `moof` of a fragment and the header of its `mdat`, to be written at `offset`. The first
// sample begins at `time`. After a crash or a power cut, a write may end at any boundary of a page
// or sector. Some demuxers refuse a file that ends within a `moof`. So a `free` box in front keeps
// the `moof` from crossing such a boundary.
Bytes fragmentStart(std::uint64_t offset, std::uint32_t number, std::uint64_t time,
                    const std::vector<MovieSample>& samples);

// The complete `moov`.
Bytes movieEnd(const FormatDescription& format, const MovieTables& tables,
               const MovieProperties& properties);

// An upper bound for the size of `movieEnd` in bytes, wherever the movie ends.
std::uint64_t maximumMovieEndBytes(const FormatDescription& format, const MovieTables& tables);

// The `mdat` header that replaces the placeholder. `size` includes its own 16 bytes.
Bytes wideMediaDataHeader(std::uint64_t size);

}  // namespace lumora
