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

constexpr std::size_t placeholderBytes = 16;

// `ftyp`, the placeholder and the `moov` of a movie of which no sample is there yet.
// `created` is seconds since 1904.
Bytes movieStart(const FormatDescription& format, std::uint64_t created);
// Where the placeholder lies in `movieStart`.
std::uint64_t placeholderOffset();

// `moof` and the header of the `mdat` that follows it with the samples' bytes; they will stand at
// `offset` in the file. What a crash or a power cut leaves of a write ends at the boundary of a
// page or of a sector, and some demuxers give up on a file with a part of a `moof`: a `free` box in
// front keeps it within one of them.
Bytes fragmentStart(std::uint64_t offset, std::uint32_t number, std::uint64_t time,
                    const std::vector<MovieSample>& samples);

// The complete `moov`.
Bytes movieEnd(const FormatDescription& format, const MovieTables& tables, std::uint64_t created);

// At least as many bytes as that takes, wherever the movie ends.
std::uint64_t maximumMovieEndBytes(const FormatDescription& format, const MovieTables& tables);

// An `mdat` header for `size` bytes, itself included; as long as the placeholder.
Bytes wideMediaDataHeader(std::uint64_t size);

}  // namespace lumora
