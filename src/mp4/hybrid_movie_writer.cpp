#include "mp4/hybrid_movie_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <numeric>
#include <utility>

#include "base/out_of_memory.h"
#include "base/text.h"
#include "h264/nal_units.h"
#include "mp4/movie_disk.h"
#include "platform/sound.h"

namespace lumora {
namespace {

constexpr std::size_t pictureTrack = 0;  // indices of the tracks
constexpr std::size_t soundTrack = 1;
constexpr std::size_t minimumSequenceBytes = 4;  // NAL header, profile, constraints, level

bool isUsable(const ParameterSet& set, std::size_t minimum) {
  return set.status == 0 && set.bytes.size() >= minimum && set.nalHeaderLength == nalLengthBytes &&
         set.bytes.size() <= std::numeric_limits<std::uint16_t>::max();
}

bool fitsSampleEntry(int size) {
  return size > 0 && size <= std::numeric_limits<std::uint16_t>::max();
}

MovieExtent extentOf(const std::vector<MovieTrack>& tracks) {
  const MovieTables& tables = tracks[pictureTrack].tables;
  return {tables.sizes.size(), static_cast<std::int64_t>(tables.duration)};
}

// The first write of a file is its start. Each later write is a fragment.
std::size_t fragmentsIn(std::size_t writes) { return std::max<std::size_t>(writes, 1) - 1; }

std::uint64_t secondsSince1904() {
  constexpr std::int64_t from1904To1970 = 2'082'844'800;
  return static_cast<std::uint64_t>(std::time(nullptr) + from1904To1970);
}

}  // namespace

HybridMovieWriter::HybridMovieWriter(std::unique_ptr<ByteSink> sink, std::uint64_t created)
    : disk_(MovieDisk::start(std::move(sink))), properties_{created} {}

HybridMovieWriter::~HybridMovieWriter() { disk_->cancel(); }

bool HybridMovieWriter::canAdd(const FormatDescription& format) const {
  return isUsable(format.parameterSet(0), minimumSequenceBytes) &&
         isUsable(format.parameterSet(1), 1) && fitsSampleEntry(format.width()) &&
         fitsSampleEntry(format.height());
}

bool HybridMovieWriter::addTrack(AacFormat format) {
  constexpr std::size_t maximumConfigurationBytes = 64;  // lengths in `esds` have one byte
  const std::size_t bytes = format.configuration.size();
  if (format.rate == 0 || format.channels == 0 || bytes == 0 || bytes > maximumConfigurationBytes)
    return false;
  tracks_.push_back({.id = 2, .sound = std::move(format)});
  return true;
}

bool HybridMovieWriter::startWriting(std::shared_ptr<const FormatDescription> format,
                                     int rotation) {
  tracks_[pictureTrack].picture = std::move(format);
  properties_.rotation = rotation;
  Bytes start = movieStart(tracks_, properties_);
  fileSize_ = start.size();
  disk_->write(std::move(start), {}, maximumMovieEndBytes(tracks_));
  return true;
}

WriterStatus HybridMovieWriter::status() const {
  if (!tracks_[pictureTrack].picture) return WriterStatus::idle;
  return closed_ ? disk_->status() : WriterStatus::writing;
}

std::optional<std::string> HybridMovieWriter::error() const { return disk_->error(); }

bool HybridMovieWriter::isReadyForMoreMediaData() const {
  const std::size_t gathered =
      gathered_[pictureTrack].payload.size() + gathered_[soundTrack].payload.size();
  return disk_->queuedBytes() + gathered < queueBytes;
}

bool HybridMovieWriter::append(const EncodedSample& sample, bool keyframe, MovieTiming timing) {
  const auto length = sample.dataLength();
  if (!length) return false;
  const MovieSample picture = {static_cast<std::uint32_t>(*length),
                               static_cast<std::uint32_t>(timing.duration), keyframe};
  const auto copy = [&](MutableByteView space) { return sample.copyBytes(0, space) == 0; };
  if (!add(pictureTrack, picture, copy)) return false;
  if (!hasGathered(pictureTrack)) return true;
  // Sound first: if these pictures survive a crash, so does the sound appended before them.
  flushFragment(soundTrack);
  flushFragment(pictureTrack);
  return true;
}

bool HybridMovieWriter::append(ByteView packet) {
  if (tracks_.size() <= soundTrack) return false;
  const MovieSample sample = {static_cast<std::uint32_t>(packet.size()), soundPacketSamples};
  const auto copy = [&](MutableByteView space) {
    std::ranges::copy(packet, space.begin());
    return true;
  };
  if (!add(soundTrack, sample, copy)) return false;
  Fragment& pictures = gathered_[pictureTrack];
  if (!pictures.samples.empty()) pictures.waited += soundPacketSamples;
  if (!hasGathered(soundTrack)) return true;
  flushFragment(soundTrack);
  // If the camera has stopped, no later picture flushes the gathered ones, so sound flushes them.
  if (pictures.waited * movieTimescale >= fragmentDuration * tracks_[soundTrack].sound.rate)
    flushFragment(pictureTrack);
  return true;
}

bool HybridMovieWriter::add(std::size_t track, MovieSample sample,
                            const std::function<bool(MutableByteView)>& copy) {
  closed_ = closed_ || disk_->status() != WriterStatus::writing;
  if (closed_) return false;
  auto& [samples, payload, duration, waited] = gathered_[track];
  samples.reserve(samples.size() + 1);  // first, so that `push_back` can't throw
  const std::size_t at = payload.size();
  payload.resize(at + sample.size);
  if (!copy(MutableByteView(payload).subspan(at))) {
    payload.resize(at);
    return false;
  }
  samples.push_back(sample);
  duration += sample.duration;
  return true;
}

bool HybridMovieWriter::hasGathered(std::size_t track) const {
  return gathered_[track].duration * movieTimescale >=
         static_cast<std::uint64_t>(fragmentDuration) * tracks_[track].timescale();
}

// Without memory the fragment is lost. The movie can still be finished with the earlier fragments.
void HybridMovieWriter::flushFragment(std::size_t track) {
  auto& [samples, payload, duration, waited] = gathered_[track];
  if (samples.empty()) return;
  MovieTables& tables = tracks_[track].tables;
  const std::size_t usual = payload.size();
  try {
    Bytes start = fragmentStart(fileSize_, fragments_ + 1, tracks_[track], samples);
    tables.addChunk(fileSize_ + start.size(), samples, fragments_ + 1);
    const std::size_t bytes = start.size() + usual;
    disk_->write(std::move(start), std::exchange(payload, {}), maximumMovieEndBytes(tracks_));
    fileSize_ += bytes;
    ++fragments_;
  } catch (const std::exception&) {
    tables.keepFragments(fragments_);
    samples.clear();
    closed_ = true;
    throw;
  }
  samples.clear();
  duration = 0;
  waited = 0;
  bestEffort([&next = payload, usual] { next.reserve(usual + usual / 4); });
}

void HybridMovieWriter::finishWriting(std::int64_t end, std::function<void()> handler) {
  closed_ = true;
  flushFragment(soundTrack);
  flushFragment(pictureTrack);
  for (MovieTrack& track : tracks_)
    track.endAt(static_cast<std::uint64_t>(std::max<std::int64_t>(end, 0)));
  if (tracks_[pictureTrack].tables.empty()) {
    disk_->fail("no video lies before the end of the recording", std::move(handler));
    return;
  }
  const std::uint64_t covered = fileSize_ - placeholderOffset();
  disk_->finish(movieEnd(tracks_, properties_), placeholderOffset(), wideMediaDataHeader(covered),
                std::move(handler));
}

MovieExtent HybridMovieWriter::extent() const { return extentOf(tracks_); }

MovieExtent HybridMovieWriter::synced() const {
  const MovieTables& tables = tracks_[pictureTrack].tables;
  const std::size_t frames = tables.samplesIn(fragmentsIn(disk_->syncedWrites()));
  const auto behind = tables.durations.begin() + static_cast<std::ptrdiff_t>(frames);
  const auto rest = std::accumulate(behind, tables.durations.end(), std::uint64_t{0});
  return {frames, static_cast<std::int64_t>(tables.duration - rest)};
}

void HybridMovieWriter::rescue(RescueHandler handler) {
  closed_ = true;
  const auto kept = std::make_shared<MovieExtent>(synced());  // until more is known
  disk_->rescue(
      placeholderOffset(),
      [kept, properties = properties_, tracks = tracks_](
          std::size_t writes, std::uint64_t size) mutable -> std::optional<MovieDisk::Ending> {
        for (MovieTrack& track : tracks) track.tables.keepFragments(fragmentsIn(writes));
        *kept = extentOf(tracks);
        if (kept->frames == 0) return std::nullopt;
        return MovieDisk::Ending{movieEnd(tracks, properties),
                                 wideMediaDataHeader(size - placeholderOffset())};
      },
      [kept, handler = std::move(handler)](int error) {
        const bool isGone = error == ENOENT;  // the file was removed
        handler(isGone ? MovieExtent{} : *kept, error == 0 && kept->frames > 0);
      });
}

bool HybridMovieWriter::openLog(const std::string& path, TakeLines takeLines, std::string& error) {
  int code = 0;
  auto sink = createFile(path, code);
  if (!sink) {
    error = reasonOf(code);
    return false;
  }
  try {
    disk_->openLog(std::move(sink), std::move(takeLines));
    return true;
  } catch (const std::exception&) {  // no memory
    unlink(path.c_str());
    throw;
  }
}

std::optional<std::string> HybridMovieWriter::logError() const { return disk_->logError(); }

std::optional<std::uint64_t> HybridMovieWriter::freeBytes() const { return disk_->freeBytes(); }

void HybridMovieWriter::cancelWriting() {
  closed_ = true;
  disk_->cancel();
}

std::shared_ptr<MovieWriter> HybridMovies::createWriter(const std::string& path,
                                                        std::string& error) {
  int code = 0;
  auto sink = createFile(path, code);
  if (!sink) {
    error = reasonOf(code);
    return nullptr;
  }
  try {
    return std::make_shared<HybridMovieWriter>(std::move(sink), secondsSince1904());
  } catch (const std::exception&) {  // no thread, for example
    unlink(path.c_str());
    throw;
  }
}

}  // namespace lumora
