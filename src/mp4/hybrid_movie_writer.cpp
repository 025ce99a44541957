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

namespace lumora {
namespace {

constexpr std::size_t minimumSequenceBytes = 4;  // NAL header, profile, constraints, level

bool isUsable(const ParameterSet& set, std::size_t minimum) {
  return set.status == 0 && set.bytes.size() >= minimum && set.nalHeaderLength == nalLengthBytes &&
         set.bytes.size() <= std::numeric_limits<std::uint16_t>::max();
}

bool fitsSampleEntry(int size) {
  return size > 0 && size <= std::numeric_limits<std::uint16_t>::max();
}

MovieExtent extentOf(const MovieTables& tables) {
  return {tables.sizes.size(), static_cast<std::int64_t>(tables.duration)};
}

// The first write of a file is its start. Every other one is a fragment.
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

bool HybridMovieWriter::startWriting(std::shared_ptr<const FormatDescription> format,
                                     int rotation) {
  format_ = std::move(format);
  properties_.rotation = rotation;
  Bytes start = movieStart(*format_, properties_);
  fileSize_ = start.size();
  disk_->write(std::move(start), {}, maximumMovieEndBytes(*format_, tables_));
  return true;
}

WriterStatus HybridMovieWriter::status() const {
  if (!format_) return WriterStatus::idle;
  return closed_ ? disk_->status() : WriterStatus::writing;
}

std::optional<std::string> HybridMovieWriter::error() const { return disk_->error(); }

bool HybridMovieWriter::isReadyForMoreMediaData() const {
  return disk_->queuedBytes() + payload_.size() < queueBytes;
}

bool HybridMovieWriter::append(const EncodedSample& sample, bool keyframe, MovieTiming timing) {
  closed_ = closed_ || disk_->status() != WriterStatus::writing;
  if (closed_) return false;
  const auto length = sample.dataLength();
  if (!length) return false;
  samples_.reserve(samples_.size() + 1);  // first, so that nothing throws once its bytes are added
  const std::size_t at = payload_.size();
  payload_.resize(at + *length);
  if (sample.copyBytes(0, MutableByteView(payload_).subspan(at)) != 0) {
    payload_.resize(at);
    return false;
  }
  if (samples_.empty()) fragmentTime_ = timing.time;
  samples_.push_back(
      {static_cast<std::uint32_t>(*length), static_cast<std::uint32_t>(timing.duration), keyframe});
  if (timing.time + timing.duration - fragmentTime_ >= fragmentDuration) flushFragment();
  return true;
}

// Without memory the fragment is lost. The movie can still be finished with those before it.
void HybridMovieWriter::flushFragment() {
  if (samples_.empty()) return;
  const std::size_t usual = payload_.size();
  try {
    Bytes start = fragmentStart(fileSize_, fragments_ + 1,
                                static_cast<std::uint64_t>(fragmentTime_), samples_);
    tables_.addChunk(fileSize_ + start.size(), samples_);
    const std::size_t bytes = start.size() + usual;
    disk_->write(std::move(start), std::exchange(payload_, {}),
                 maximumMovieEndBytes(*format_, tables_));
    fileSize_ += bytes;
    ++fragments_;
  } catch (const std::exception&) {
    tables_.keepChunks(fragments_);
    samples_.clear();
    closed_ = true;
    throw;
  }
  samples_.clear();
  bestEffort([&] { payload_.reserve(usual + usual / 4); });
}

void HybridMovieWriter::finishWriting(std::int64_t end, std::function<void()> handler) {
  closed_ = true;
  flushFragment();
  tables_.endAt(static_cast<std::uint64_t>(std::max<std::int64_t>(end, 0)));
  if (tables_.empty()) {
    disk_->fail("no video lies before the end of the recording", std::move(handler));
    return;
  }
  const std::uint64_t covered = fileSize_ - placeholderOffset();
  disk_->finish(movieEnd(*format_, tables_, properties_), placeholderOffset(),
                wideMediaDataHeader(covered), std::move(handler));
}

MovieExtent HybridMovieWriter::extent() const { return extentOf(tables_); }

MovieExtent HybridMovieWriter::synced() const {
  const std::size_t frames = tables_.samplesIn(fragmentsIn(disk_->syncedWrites()));
  const auto behind = tables_.durations.begin() + static_cast<std::ptrdiff_t>(frames);
  const auto rest = std::accumulate(behind, tables_.durations.end(), std::uint64_t{0});
  return {frames, static_cast<std::int64_t>(tables_.duration - rest)};
}

void HybridMovieWriter::rescue(RescueHandler handler) {
  closed_ = true;
  const auto kept = std::make_shared<MovieExtent>(synced());  // until more is known
  disk_->rescue(
      placeholderOffset(),
      [kept, format = format_, properties = properties_, tables = tables_](
          std::size_t writes, std::uint64_t size) mutable -> std::optional<MovieDisk::Ending> {
        tables.keepChunks(fragmentsIn(writes));
        *kept = extentOf(tables);
        if (tables.empty()) return std::nullopt;
        return MovieDisk::Ending{movieEnd(*format, tables, properties),
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
