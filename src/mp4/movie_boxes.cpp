#include "mp4/movie_boxes.h"

#include <algorithm>
#include <limits>

#include "mp4/box.h"
#include "mp4/sample_entries.h"
#include "platform/sound.h"

namespace lumora {
namespace {

constexpr std::uint32_t keySampleFlags = 0x02000000;    // depends on no other sample
constexpr std::uint32_t deltaSampleFlags = 0x01010000;  // depends on others, is no sync sample

constexpr std::int32_t one = 0x10000;  // 16.16 fixed point

// 14496-12, 6.2.2: the matrix (a, b, u, c, d, v, x, y, w) of mvhd and tkhd takes a point (p, q) to
// (ap + cq + x, bp + dq + y).
void matrix(Bytes& bytes, std::int32_t a, std::int32_t b, std::int32_t c, std::int32_t d, int x,
            int y) {
  for (const std::int32_t value : {a, b, 0, c, d, 0}) u32(bytes, static_cast<std::uint32_t>(value));
  for (const int pixels : {x, y}) u32(bytes, static_cast<std::uint32_t>(pixels) << 16);
  u32(bytes, 0x40000000);  // w
}

void unityMatrix(Bytes& bytes) { matrix(bytes, one, 0, 0, one, 0, 0); }

// Turns a picture clockwise and moves it back into view.
void rotationMatrix(Bytes& bytes, int rotation, int width, int height) {
  switch (rotation) {
    case 90:
      return matrix(bytes, 0, one, -one, 0, height, 0);
    case 180:
      return matrix(bytes, -one, 0, 0, -one, width, height);
    case 270:
      return matrix(bytes, 0, -one, one, 0, 0, width);
    default:
      return unityMatrix(bytes);
  }
}

// 14496-12, 4.3
void fileType(Bytes& bytes) {
  const Box box(bytes, "ftyp");
  text(bytes, "isom");
  u32(bytes, 0x200);
  for (const std::string_view brand : {"isom", "iso6", "mp42", "avc1"}) text(bytes, brand);
}

// 14496-12, 8.2.2
void movieHeader(Bytes& bytes, const std::vector<MovieTrack>& tracks, std::uint64_t created) {
  std::uint64_t duration = 0;
  for (const MovieTrack& track : tracks) duration = std::max(duration, track.playedDuration());
  const Box box(bytes, "mvhd", 1, 0);
  u64(bytes, created);
  u64(bytes, created);
  u32(bytes, movieTimescale);
  u64(bytes, duration);
  u32(bytes, 0x10000);  // rate 1.0
  u16(bytes, 0x100);    // volume 1.0
  zeros(bytes, 10);
  unityMatrix(bytes);
  zeros(bytes, 24);
  u32(bytes, tracks.back().id + 1);
}

// 14496-12, 8.3.2
void trackHeader(Bytes& bytes, const MovieTrack& track, const MovieProperties& properties) {
  const int width = track.picture ? track.picture->width() : 0;
  const int height = track.picture ? track.picture->height() : 0;
  const Box box(bytes, "tkhd", 1, 0x3);  // enabled, in the movie
  u64(bytes, properties.created);
  u64(bytes, properties.created);
  u32(bytes, track.id);
  zeros(bytes, 4);
  u64(bytes, track.playedDuration());
  zeros(bytes, 12);
  u16(bytes, track.picture ? 0 : 0x100);  // volume 1.0
  zeros(bytes, 2);
  rotationMatrix(bytes, track.picture ? properties.rotation : 0, width, height);
  u32(bytes, static_cast<std::uint32_t>(width) << 16);
  u32(bytes, static_cast<std::uint32_t>(height) << 16);
}

// 14496-12, 8.6.6: hides the priming. In a growing movie, duration 0 means all samples to come.
void editList(Bytes& bytes, const MovieTrack& track) {
  const Box box(bytes, "edts");
  const Box list(bytes, "elst", 1, 0);
  u32(bytes, 1);
  u64(bytes, track.playedDuration());
  u64(bytes, track.sound.priming);
  u32(bytes, 0x10000);  // rate 1.0
}

// 14496-12, 8.4.2
void mediaHeader(Bytes& bytes, const MovieTrack& track, std::uint64_t created) {
  const Box box(bytes, "mdhd", 1, 0);
  u64(bytes, created);
  u64(bytes, created);
  u32(bytes, track.timescale());
  u64(bytes, track.tables.duration);
  u16(bytes, 0x55C4);  // language "und"
  u16(bytes, 0);
}

// 14496-12, 8.4.3
void handler(Bytes& bytes, bool isPicture) {
  const Box box(bytes, "hdlr", 0, 0);
  u32(bytes, 0);
  text(bytes, isPicture ? "vide" : "soun");
  zeros(bytes, 12);
  text(bytes, isPicture ? "Camera" : "Sound");
  u8(bytes, 0);
}

// 14496-12, 8.5.2
void sampleDescription(Bytes& bytes, const MovieTrack& track) {
  const Box box(bytes, "stsd", 0, 0);
  u32(bytes, 1);
  if (track.picture)
    pictureEntry(bytes, *track.picture);
  else
    soundEntry(bytes, track.sound);
}

// Appends the number of runs of equal values. Then calls `append(from, to)` for each run, to append
// its entry. The run begins at index `from` and ends before index `to`.
template <typename Values, typename Append>
void runs(Bytes& bytes, const Values& values, Append append) {
  const std::size_t countAt = bytes.size();
  u32(bytes, 0);
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < values.size();) {
    std::size_t end = i + 1;
    while (end < values.size() && values[end] == values[i]) ++end;
    append(i, end);
    ++count;
    i = end;
  }
  storeBE(bytes.data() + countAt, count);
}

// 14496-12, 8.6.1.2
void timeToSample(Bytes& bytes, const MovieTables& tables) {
  const Box box(bytes, "stts", 0, 0);
  runs(bytes, tables.durations, [&](std::size_t from, std::size_t to) {
    u32(bytes, static_cast<std::uint32_t>(to - from));
    u32(bytes, tables.durations[from]);
  });
}

// 14496-12, 8.6.2
void syncSamples(Bytes& bytes, const MovieTables& tables) {
  const Box box(bytes, "stss", 0, 0);
  u32(bytes, static_cast<std::uint32_t>(tables.keyframes.size()));
  for (const std::uint32_t number : tables.keyframes) u32(bytes, number);
}

// 14496-12, 8.7.4
void sampleToChunk(Bytes& bytes, const MovieTables& tables) {
  std::vector<std::uint32_t> counts;
  counts.reserve(tables.chunks.size());
  for (const MovieChunk& chunk : tables.chunks) counts.push_back(chunk.samples);
  const Box box(bytes, "stsc", 0, 0);
  runs(bytes, counts, [&](std::size_t from, std::size_t) {
    u32(bytes, static_cast<std::uint32_t>(from + 1));
    u32(bytes, counts[from]);
    u32(bytes, 1);
  });
}

// 14496-12, 8.7.3.2
void sampleSizes(Bytes& bytes, const MovieTables& tables) {
  const Box box(bytes, "stsz", 0, 0);
  u32(bytes, 0);
  u32(bytes, static_cast<std::uint32_t>(tables.sizes.size()));
  for (const std::uint32_t size : tables.sizes) u32(bytes, size);
}

// 14496-12, 8.7.5
void chunkOffsets(Bytes& bytes, const MovieTables& tables) {
  const auto& chunks = tables.chunks;
  const bool wide =
      !chunks.empty() && chunks.back().offset > std::numeric_limits<std::uint32_t>::max();
  const Box box(bytes, wide ? "co64" : "stco", 0, 0);
  u32(bytes, static_cast<std::uint32_t>(chunks.size()));
  for (const MovieChunk& chunk : chunks) {
    if (wide)
      u64(bytes, chunk.offset);
    else
      u32(bytes, static_cast<std::uint32_t>(chunk.offset));
  }
}

// 14496-12, 8.5.1
void sampleTable(Bytes& bytes, const MovieTrack& track) {
  const MovieTables& tables = track.tables;
  const Box box(bytes, "stbl");
  sampleDescription(bytes, track);
  timeToSample(bytes, tables);
  // Sound needs no `stss`, since decoding can begin at any packet.
  if (track.picture && !tables.empty()) syncSamples(bytes, tables);
  sampleToChunk(bytes, tables);
  sampleSizes(bytes, tables);
  chunkOffsets(bytes, tables);
}

// 14496-12, 8.4.4, 12.1.2, 12.2.2, 8.7.1 and 8.7.2
void mediaInformation(Bytes& bytes, const MovieTrack& track) {
  const Box box(bytes, "minf");
  if (track.picture) {
    const Box header(bytes, "vmhd", 0, 1);
    zeros(bytes, 8);
  } else {
    const Box header(bytes, "smhd", 0, 0);
    zeros(bytes, 4);
  }
  {
    const Box information(bytes, "dinf");
    const Box references(bytes, "dref", 0, 0);
    u32(bytes, 1);
    const Box thisFile(bytes, "url ", 0, 1);
  }
  sampleTable(bytes, track);
}

// 14496-12, 8.3.1 and 8.4.1
void trackBox(Bytes& bytes, const MovieTrack& track, const MovieProperties& properties) {
  const Box box(bytes, "trak");
  trackHeader(bytes, track, properties);
  if (!track.picture) editList(bytes, track);
  const Box media(bytes, "mdia");
  mediaHeader(bytes, track, properties.created);
  handler(bytes, track.picture != nullptr);
  mediaInformation(bytes, track);
}

// 14496-12, 8.8.1 and 8.8.3: the samples come in fragments.
void movieExtends(Bytes& bytes, const std::vector<MovieTrack>& tracks) {
  const Box box(bytes, "mvex");
  for (const MovieTrack& track : tracks) {
    const Box defaults(bytes, "trex", 0, 0);
    u32(bytes, track.id);
    u32(bytes, 1);  // sample description
    u32(bytes, track.picture ? 0 : soundPacketSamples);
    u32(bytes, 0);
    u32(bytes, track.picture ? 0 : keySampleFlags);
  }
}

// 14496-12, 8.8.8: `dataOffset` counts from the start of the moof. Packets of sound differ only in
// their sizes; `trex` has the rest.
void trackRun(Bytes& bytes, bool isPicture, const std::vector<MovieSample>& samples,
              std::uint32_t dataOffset) {
  const Box box(bytes, "trun", 0, isPicture ? pictureRunFlags : soundRunFlags);
  u32(bytes, static_cast<std::uint32_t>(samples.size()));
  u32(bytes, dataOffset);
  for (const MovieSample& sample : samples) {
    if (isPicture) u32(bytes, sample.duration);
    u32(bytes, sample.size);
    if (isPicture) u32(bytes, sample.keyframe ? keySampleFlags : deltaSampleFlags);
  }
}

// 14496-12, 8.8.4 to 8.8.12
void movieFragment(Bytes& bytes, std::uint32_t number, const MovieTrack& track,
                   const std::vector<MovieSample>& samples, std::uint32_t dataOffset) {
  const Box box(bytes, "moof");
  {
    const Box header(bytes, "mfhd", 0, 0);
    u32(bytes, number);
  }
  const Box fragment(bytes, "traf");
  {
    const Box header(bytes, "tfhd", 0, 0x20000);  // offsets count from the moof
    u32(bytes, track.id);
  }
  {
    const Box decodeTime(bytes, "tfdt", 1, 0);
    u64(bytes, track.tables.duration);
  }
  trackRun(bytes, track.picture != nullptr, samples, dataOffset);
}

// Appends a `free` box if `size` bytes written at `offset` would cross the end of a sector or,
// if `size` exceeds a sector, the end of a page.
void keepTogether(Bytes& bytes, std::uint64_t offset, std::size_t size) {
  constexpr std::uint64_t sector = 512;
  constexpr std::uint64_t page = 4096;
  constexpr std::uint64_t smallestBox = 8;
  const std::uint64_t block = size <= sector ? sector : page;
  const std::uint64_t left = block - offset % block;
  if (left >= size) return;
  const Box padding(bytes, "free");
  zeros(bytes, left + (left < smallestBox ? block : 0) - smallestBox);
}

}  // namespace

Bytes movieStart(const std::vector<MovieTrack>& tracks, const MovieProperties& properties) {
  Bytes bytes;
  fileType(bytes);
  {
    const Box placeholder(bytes, "free");
    zeros(bytes, 8);
  }
  {
    const Box box(bytes, "moov");
    movieHeader(bytes, tracks, properties.created);
    for (const MovieTrack& track : tracks) trackBox(bytes, track, properties);
    movieExtends(bytes, tracks);
  }
  return bytes;
}

std::uint64_t placeholderOffset() {
  Bytes bytes;
  fileType(bytes);
  return bytes.size();
}

Bytes fragmentStart(std::uint64_t offset, std::uint32_t number, const MovieTrack& track,
                    const std::vector<MovieSample>& samples) {
  constexpr std::uint32_t mediaDataHeaderBytes = 8;
  std::uint32_t payload = 0;
  for (const MovieSample& sample : samples) payload += sample.size;
  Bytes measured;
  movieFragment(measured, number, track, samples, 0);
  Bytes bytes;
  keepTogether(bytes, offset, measured.size());
  movieFragment(bytes, number, track, samples,
                static_cast<std::uint32_t>(measured.size()) + mediaDataHeaderBytes);
  u32(bytes, payload + mediaDataHeaderBytes);
  text(bytes, "mdat");
  return bytes;
}

Bytes movieEnd(const std::vector<MovieTrack>& tracks, const MovieProperties& properties) {
  Bytes bytes;
  bytes.reserve(maximumMovieEndBytes(tracks));
  {
    const Box box(bytes, "moov");
    movieHeader(bytes, tracks, properties.created);
    for (const MovieTrack& track : tracks) trackBox(bytes, track, properties);
  }
  return bytes;
}

std::uint64_t maximumMovieEndBytes(const std::vector<MovieTrack>& tracks) {
  constexpr std::uint64_t fixedBoxes = 1024;  // bytes in each track, rounded up
  std::uint64_t bytes = 0;
  for (const auto& [id, picture, sound, tables] : tracks) {
    bytes += fixedBoxes + sound.configuration.size();
    if (picture)
      bytes += picture->parameterSet(0).bytes.size() + picture->parameterSet(1).bytes.size();
    // The worst case: no two neighbouring samples have the same duration, and no two neighbouring
    // chunks have the same number of samples.
    bytes += tables.sizes.size() * (8 + 4) + tables.keyframes.size() * 4 +
             tables.chunks.size() * (12 + 8);
  }
  return bytes;
}

Bytes wideMediaDataHeader(std::uint64_t size) {
  Bytes bytes;
  u32(bytes, 1);
  text(bytes, "mdat");
  u64(bytes, size);
  return bytes;
}

}  // namespace lumora
