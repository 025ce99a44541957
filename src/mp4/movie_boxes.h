#pragma once

// The boxes of our MP4 files (ISO/IEC 14496-12, -14 and -15). Pure: tables in, bytes out.
//
// While recording:   ftyp | free, 16 bytes | moov with mvex | moof mdat | moof mdat | ...
// Once finished:     ftyp | mdat, 64-bit size, holds the boxes after `free`       | moov
//
// The `free` box is a placeholder: its 16 bytes become the header of the one `mdat`. Once the
// complete `moov` is appended, this one small write makes the fragmented file an ordinary one.
// Each fragment has samples of one track, so that its `moof` is small.

#include <vector>

#include "mp4/movie_track.h"

namespace lumora {

struct MovieProperties {
  std::uint64_t created = 0;  // seconds since 1904
  int rotation = 0;           // of the shown picture, clockwise degrees: 0, 90, 180 or 270
};

// Flags of `trun`: the box has the offset of the samples and the size of each. For pictures it also
// has the duration and the flags of each.
constexpr std::uint32_t soundRunFlags = 0x201;
constexpr std::uint32_t pictureRunFlags = 0x701;

// `ftyp`, the placeholder and the `moov` of a movie that has no samples yet.
Bytes movieStart(const std::vector<MovieTrack>& tracks, const MovieProperties& properties);
// Where the placeholder lies in `movieStart`, in bytes.
std::uint64_t placeholderOffset();

// The `moof` of a fragment and the header of its `mdat`, to be written at `offset`. The tables of
// `track` hold its earlier samples. A crash or a power cut may cut a write off at the boundary of
// any page or sector. Some demuxers refuse a file that ends within a `moof`. So the `moof` lies
// within one sector, or within one page if it is larger than a sector. Where needed, a `free` box
// in front of it ensures that.
Bytes fragmentStart(std::uint64_t offset, std::uint32_t number, const MovieTrack& track,
                    const std::vector<MovieSample>& samples);

// The complete `moov`.
Bytes movieEnd(const std::vector<MovieTrack>& tracks, const MovieProperties& properties);

// An upper bound for the size of `movieEnd` in bytes, whatever end `MovieTrack::endAt` sets.
std::uint64_t maximumMovieEndBytes(const std::vector<MovieTrack>& tracks);

// The `mdat` header that replaces the placeholder. `size` includes the 16 bytes of this header.
Bytes wideMediaDataHeader(std::uint64_t size);

}  // namespace lumora
