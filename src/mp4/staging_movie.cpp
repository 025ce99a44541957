#include "mp4/staging_movie.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "h264/memory_sample.h"
#include "platform/movie_writer.h"
#include "platform/sound.h"

namespace lumora {
namespace {

// Our own files stay below these limits, unless a take lasts for days. For other files the limits
// bound time and memory.
constexpr std::size_t maximumChildren = 64;             // of one box
constexpr std::uint64_t maximumLeafBytes = 1 << 20;     // of a box that is read whole
constexpr std::uint32_t maximumSampleBytes = 64 << 20;  // of a sample that is read
constexpr std::size_t maximumSamples = std::size_t{1}
                                       << 25;  // 43 h of 120 pictures a second and 96 kHz sound

struct Damaged : std::runtime_error {
  Damaged() : std::runtime_error("it is not a take of this program, or its start is damaged") {}
};

void require(bool fits) {
  if (!fits) throw Damaged();
}

// A box in the file. All of it lies within the file.
struct BoxPlace {
  std::string type;
  std::uint64_t start = 0;
  std::uint64_t body = 0;
  std::uint64_t end = 0;
};

// The contents of a box, read from front to back. Reading past the end throws Damaged.
class Fields {
 public:
  explicit Fields(Bytes bytes) : bytes_(std::move(bytes)) {}
  template <typename Integer>
  Integer next() {
    return integerBE<Integer>(take(sizeof(Integer)), 0);
  }
  ByteView take(std::size_t count) {
    require(count <= left());
    at_ += count;
    return ByteView(bytes_).subspan(at_ - count, count);
  }
  std::size_t left() const { return bytes_.size() - at_; }

 private:
  Bytes bytes_;
  std::size_t at_ = 0;
};

class Reader {
 public:
  explicit Reader(const FileView& file) : file_(file) {}
  StagingMovie read();

 private:
  Bytes bytes(std::uint64_t offset, std::size_t count) const;
  std::optional<BoxPlace> boxAt(std::uint64_t at, std::uint64_t end) const;
  std::vector<BoxPlace> children(const BoxPlace& parent, std::uint64_t skipped = 0) const;
  BoxPlace child(const BoxPlace& parent, std::string_view type, std::uint64_t skipped = 0) const;
  BoxPlace sampleTable(const BoxPlace& track) const;
  Fields fields(const BoxPlace& box) const;

  void readFinished(const BoxPlace& movie);
  void readStart(const BoxPlace& movie);
  MovieTrack readTrack(const BoxPlace& track, bool isPicture);
  std::shared_ptr<const FormatDescription> pictureFormat(const BoxPlace& entry) const;
  AacFormat soundFormat(const BoxPlace& track, const BoxPlace& entry) const;
  void readFragments(std::uint64_t at);
  std::uint64_t addFragment(const BoxPlace& fragment);
  static std::vector<MovieSample> readSamples(Fields& run, bool isPicture);
  void dropTornSamples(MovieTrack& track) const;
  bool isWhole(std::uint64_t offset, std::uint32_t size, bool isPicture) const;
  bool holdsTables(std::uint64_t offset, std::uint64_t size) const;

  const FileView& file_;
  StagingMovie movie_;
  std::size_t samples_ = 0;  // of all tracks
};

// Our files have `ftyp`, then the placeholder or the `mdat` that replaced it, and then a `moov`.
StagingMovie Reader::read() {
  const auto head = boxAt(0, file_.size);
  require(head && head->type == "ftyp");
  movie_.placeholder = head->end;
  const auto second = boxAt(head->end, file_.size);
  require(second.has_value());
  constexpr std::uint64_t placeholderBytes = 16;
  movie_.isFinished = second->type == "mdat" && second->body - second->start == placeholderBytes;
  const bool isFree = second->type == "free" && second->end - second->start == placeholderBytes;
  require(movie_.isFinished || isFree);
  const auto tables = boxAt(second->end, file_.size);
  require(tables && tables->type == "moov");
  if (movie_.isFinished) {
    readFinished(*tables);
  } else {
    readStart(*tables);
    readFragments(tables->end);
    const MovieTables& first = movie_.tracks.front().tables;
    movie_.frames = first.sizes.size();
    movie_.duration = static_cast<double>(first.duration) / movieTimescale;
  }
  if (movie_.frames == 0) throw std::runtime_error("it holds no picture");
  return std::move(movie_);
}

Bytes Reader::bytes(std::uint64_t offset, std::size_t count) const {
  Bytes read(count);
  file_.read(offset, read);
  return read;
}

// 14496-12, 4.2: the box at `at`, if there is one that ends at `end` or before.
std::optional<BoxPlace> Reader::boxAt(std::uint64_t at, std::uint64_t end) const {
  constexpr std::uint64_t narrow = 8;
  constexpr std::uint64_t wide = 16;
  if (at > end || end - at < narrow) return std::nullopt;
  const Bytes header = bytes(at, narrow);
  std::uint64_t size = integerBE<std::uint32_t>(header, 0);
  std::uint64_t headerBytes = narrow;
  if (size == 1 && end - at >= wide) {
    headerBytes = wide;
    size = integerBE<std::uint64_t>(bytes(at + narrow, wide - narrow), 0);
  }
  if (size < headerBytes || size > end - at) return std::nullopt;
  return BoxPlace{std::string(header.begin() + 4, header.end()), at, at + headerBytes, at + size};
}

std::vector<BoxPlace> Reader::children(const BoxPlace& parent, std::uint64_t skipped) const {
  std::vector<BoxPlace> found;
  std::uint64_t at = parent.body + skipped;
  while (auto box = boxAt(at, parent.end)) {
    require(found.size() < maximumChildren);
    at = box->end;
    found.push_back(std::move(*box));
  }
  return found;
}

BoxPlace Reader::child(const BoxPlace& parent, std::string_view type, std::uint64_t skipped) const {
  const auto all = children(parent, skipped);
  const auto found = std::ranges::find(all, type, &BoxPlace::type);
  require(found != all.end());
  return *found;
}

BoxPlace Reader::sampleTable(const BoxPlace& track) const {
  return child(child(child(track, "mdia"), "minf"), "stbl");
}

Fields Reader::fields(const BoxPlace& box) const {
  require(box.end - box.body <= maximumLeafBytes);
  return Fields(bytes(box.body, box.end - box.body));
}

// The tables are complete, since they were written and synced before the `mdat` header replaced the
// placeholder.
void Reader::readFinished(const BoxPlace& movie) {
  const BoxPlace track = child(movie, "trak");
  const BoxPlace table = sampleTable(track);
  for (const char* type : {"stsd", "stts", "stsc"}) child(table, type);
  const BoxPlace sizes = child(table, "stsz");
  require(sizes.end - sizes.body >= 12);
  movie_.frames = integerBE<std::uint32_t>(bytes(sizes.body + 8, 4), 0);
  require(sizes.end - sizes.body == 12 + movie_.frames * 4);
  Fields header = fields(child(child(track, "mdia"), "mdhd"));
  require(header.next<std::uint32_t>() == 1 << 24);  // version 1
  header.take(16);
  require(header.next<std::uint32_t>() == movieTimescale);
  movie_.duration = static_cast<double>(header.next<std::uint64_t>()) / movieTimescale;
}

void Reader::readStart(const BoxPlace& movie) {
  Fields header = fields(child(movie, "mvhd"));
  require(header.next<std::uint32_t>() == 1 << 24);  // version 1
  movie_.properties.created = header.next<std::uint64_t>();
  for (const BoxPlace& box : children(movie)) {
    if (box.type == "trak") movie_.tracks.push_back(readTrack(box, movie_.tracks.empty()));
  }
  require(movie_.tracks.size() == 1 || movie_.tracks.size() == 2);
}

MovieTrack Reader::readTrack(const BoxPlace& track, bool isPicture) {
  Fields header = fields(child(track, "tkhd"));
  require(header.next<std::uint32_t>() >> 24 == 1);  // version 1
  header.take(16);
  const auto id = header.next<std::uint32_t>();
  require(id == (isPicture ? 1U : 2U));
  constexpr std::uint64_t countBytes = 8;  // in front of the entries
  const BoxPlace entries = child(sampleTable(track), "stsd");
  if (!isPicture) {
    const BoxPlace entry = child(entries, "mp4a", countBytes);
    return {.id = id, .sound = soundFormat(track, entry)};
  }
  header.take(28);  // up to the matrix, which begins with the cosine and the sine of the rotation
  const auto cosine = static_cast<std::int32_t>(header.next<std::uint32_t>());
  const auto sine = static_cast<std::int32_t>(header.next<std::uint32_t>());
  movie_.properties.rotation = sine > 0 ? 90 : sine < 0 ? 270 : cosine < 0 ? 180 : 0;
  return {.id = id, .picture = pictureFormat(child(entries, "avc1", countBytes))};
}

AacFormat Reader::soundFormat(const BoxPlace& track, const BoxPlace& entry) const {
  AacFormat format;
  Fields edit = fields(child(child(track, "edts"), "elst"));
  edit.take(4 + 4 + 8 + 4);  // up to the low 4 bytes of the media time
  format.priming = edit.next<std::uint32_t>();
  Fields media = fields(child(child(track, "mdia"), "mdhd"));
  media.take(4 + 16);
  format.rate = media.next<std::uint32_t>();
  constexpr std::uint64_t fixedBytes = 28;
  Fields start(bytes(entry.body, std::min(entry.end - entry.body, fixedBytes)));
  start.take(16);
  format.channels = start.next<std::uint16_t>();
  Fields stream = fields(child(entry, "esds", fixedBytes));
  stream.take(4 + 5 + 15 + 1);  // up to the length of the configuration
  const ByteView configuration = stream.take(stream.next<std::uint8_t>());
  format.configuration = Bytes(configuration.begin(), configuration.end());
  constexpr std::size_t longest = 64;  // that `HybridMovieWriter::addTrack` accepts
  require(format.rate > 0 && format.channels > 0 && !format.configuration.empty() &&
          format.configuration.size() <= longest);
  return format;
}

std::shared_ptr<const FormatDescription> Reader::pictureFormat(const BoxPlace& entry) const {
  constexpr std::uint64_t sizeAt = 24;
  constexpr std::uint64_t fixedBytes = 78;
  Fields start(bytes(entry.body, std::min(entry.end - entry.body, fixedBytes)));
  start.take(sizeAt);
  const auto width = start.next<std::uint16_t>();
  const auto height = start.next<std::uint16_t>();

  Fields configuration = fields(child(entry, "avcC", fixedBytes));
  const auto parameterSet = [&configuration] {
    require((configuration.next<std::uint8_t>() & 0x1F) == 1);  // exactly one set
    const ByteView set = configuration.take(configuration.next<std::uint16_t>());
    return Bytes(set.begin(), set.end());
  };
  configuration.take(5);
  Bytes sequence = parameterSet();
  Bytes picture = parameterSet();
  require(sequence.size() >= 4 && !picture.empty() && width > 0 && height > 0);

  Fields colour = fields(child(entry, "colr", fixedBytes));
  colour.take(4);
  ColourDescription codes;
  for (auto* code : {&codes.primaries, &codes.transfer, &codes.matrix}) {
    *code = colour.next<std::uint16_t>();
  }
  codes.fullRange = colour.next<std::uint8_t>() != 0;
  return std::make_shared<MemoryFormatDescription>(std::move(sequence), std::move(picture), width,
                                                   height, codes);
}

// Stops at the first box that is not a whole `moof`. It may be a `moof` that a power cut has torn,
// or the tables of a movie that was being finished. Each fragment is synced before the next one is
// written, so only the last one may be torn.
void Reader::readFragments(std::uint64_t at) {
  try {
    while (auto box = boxAt(at, file_.size)) {
      if (box->type == "free") box = boxAt(box->end, file_.size);
      if (!box || box->type != "moof") break;
      at = addFragment(*box);
    }
  } catch (const Damaged&) {  // no sample of this fragment has been added
  }
  for (MovieTrack& track : movie_.tracks) dropTornSamples(track);
}

// 14496-12, 8.8.4 to 8.8.12. Adds the samples of a `moof` that `fragmentStart` wrote. Returns where
// the fragment ends, which may be beyond the end of the file.
std::uint64_t Reader::addFragment(const BoxPlace& fragment) {
  const BoxPlace part = child(fragment, "traf");
  Fields header = fields(child(part, "tfhd"));
  require(header.next<std::uint32_t>() == 0x20000);
  const auto track =
      std::ranges::find(movie_.tracks, header.next<std::uint32_t>(), &MovieTrack::id);
  require(track != movie_.tracks.end());
  Fields time = fields(child(part, "tfdt"));
  require(time.next<std::uint32_t>() == 1 << 24);
  require(time.next<std::uint64_t>() == track->tables.duration);

  Fields run = fields(child(part, "trun"));
  const bool isPicture = track->picture != nullptr;
  require(run.next<std::uint32_t>() == (isPicture ? pictureRunFlags : soundRunFlags));
  const auto count = run.next<std::uint32_t>();
  const std::uint64_t offset = fragment.start + run.next<std::uint32_t>();
  require(count > 0 && run.left() == std::size_t{count} * (isPicture ? 12 : 4));
  constexpr std::uint64_t mediaDataHeaderBytes = 8;
  require(offset == fragment.end + mediaDataHeaderBytes);
  require(fragment.end - fragment.start <= 3 * maximumLeafBytes);  // the next line reads it whole
  require(!holdsTables(fragment.start, offset - fragment.start));
  const auto samples = readSamples(run, isPicture);
  samples_ += samples.size();
  // Cutting the movie at the limit would lose samples, so the file stays as it is.
  if (samples_ > maximumSamples) {
    throw std::runtime_error("it holds more samples than can be recovered");
  }
  track->tables.addChunk(offset, samples, 0);
  std::uint64_t end = offset;
  for (const MovieSample& sample : samples) end += sample.size;
  return end;
}

std::vector<MovieSample> Reader::readSamples(Fields& run, bool isPicture) {
  std::vector<MovieSample> samples;
  while (run.left() > 0) {
    MovieSample sample{.duration = soundPacketSamples};
    if (isPicture) sample.duration = run.next<std::uint32_t>();
    sample.size = run.next<std::uint32_t>();
    if (isPicture) sample.keyframe = (run.next<std::uint32_t>() & 0x10000) == 0;
    require(sample.duration > 0 && sample.size > 0);
    samples.push_back(sample);
  }
  return samples;
}

// In the last chunk, drops the first sample that is not whole and all samples after it.
void Reader::dropTornSamples(MovieTrack& track) const {
  MovieTables& tables = track.tables;
  if (tables.empty()) return;
  const MovieChunk chunk = tables.chunks.back();
  std::size_t whole = tables.sizes.size() - chunk.samples;
  for (std::uint64_t at = chunk.offset;
       whole < tables.sizes.size() && isWhole(at, tables.sizes[whole], track.picture != nullptr);
       ++whole) {
    at += tables.sizes[whole];
  }
  while (tables.sizes.size() > whole) tables.dropLast();
}

// After a power cut, a file may have its full length but zeros at its end. No NAL unit ends with a
// zero byte (14496-10, 7.4.1). No packet of AAC does either: it ends with the bits 111 and less
// than a byte of padding (14496-3, 4.4.2.1).
bool Reader::isWhole(std::uint64_t offset, std::uint32_t size, bool isPicture) const {
  if (size > maximumSampleBytes || offset > file_.size || size > file_.size - offset) return false;
  if (holdsTables(offset, size)) return false;
  const Bytes sample = bytes(offset, size);
  if (isPicture && walkNalUnits(ByteView(sample)).error != NalWalkError::none) return false;
  return sample.back() != 0;
}

// A recovery that was interrupted may have appended tables to a torn fragment. Returns whether they
// begin in the `size` bytes at `offset`, which lies within the file.
bool Reader::holdsTables(std::uint64_t offset, std::uint64_t size) const {
  constexpr std::string_view tables("moov\0\0\0\x78mvhd", 12);  // bytes 4 to 15 of the `moov`
  // The first byte of the `moov` may be the last of the `size` bytes.
  const std::uint64_t longest = size + 3 + tables.size();
  const Bytes read = bytes(offset, std::min(longest, file_.size - offset));
  return std::search(read.begin(), read.end(), tables.begin(), tables.end()) != read.end();
}

}  // namespace

StagingMovie readStagingMovie(const FileView& file) { return Reader(file).read(); }

}  // namespace lumora
