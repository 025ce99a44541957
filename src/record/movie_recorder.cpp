// Receives and writes the samples of a take.

#include "record/movie_recorder.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "base/movie_names.h"
#include "base/out_of_memory.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_timing.h"

namespace lumora {
namespace {

constexpr int maximumPending = 2;         // write jobs queued and not finished
constexpr double progressInterval = 1.0;  // seconds

}  // namespace

MovieRecorder::MovieRecorder(std::string takeID, std::string destination,
                             std::optional<double> start, RecordingProfile takeProfile,
                             const TakeOptions& asked, const Platform& services, Report relay)
    : id(std::move(takeID)),
      path(std::move(destination)),
      startedAt(start),
      profile(takeProfile),
      options(asked),
      staging(stagingPath(path, id)),
      log(options.frameLog ? std::make_shared<FrameLog>() : nullptr),
      cadence{profile.targetFPS, asked.cadence, std::nullopt},
      platform(services),
      queue(services.dispatch->makeQueue("lumora.movie")),
      report(std::move(relay)) {
  if (options.sound) sound.emplace(*options.sound, options.soundBitRate);
}

// In a take with sound the time of a picture is the capture time in its id, or else the time at
// which it was read (`frameTime`). If both kinds occur, times still never go back.
double MovieRecorder::captureTime(const ReadFrame& frame) {
  if (!options.sound) return frame.capturedAt;
  latestCapture = std::max(latestCapture, frameTime(frame.id, frame.capturedAt));
  return latestCapture;
}

bool MovieRecorder::append(std::shared_ptr<const EncodedSample> sample, const ReadFrame& frame,
                           bool keyframe) {
  using enum FrameOutcome;
  if (!accepting) {  // the frame gets its outcome when the log ends
    ++dropped;
    return false;
  }
  const bool isLate = pending >= maximumPending;
  if (isLate || (waitingIDR && !keyframe)) {
    countDropped(frame.id, isLate ? disk : waitingForKeyFrame);
    return false;
  }
  waitingIDR = false;
  ++pending;
  queue->async([self = shared_from_this(),
                next = HeldSample{std::move(sample), frame.id, keyframe, frame.capturedAt}] {
    self->writeJob(next);
  });
  return true;
}

void MovieRecorder::countDropped(std::uint64_t frame, FrameOutcome why) {
  ++dropped;
  waitingIDR = true;
  if (log) log->settle(frame, why);
}

void MovieRecorder::countThrottled(std::uint64_t frame) {
  ++throttled;
  if (log) log->settle(frame, FrameOutcome::throttled);
}

void MovieRecorder::writeJob(HeldSample next) {
  if (!failed) {
    try {
      holdBack(std::move(next));
    } catch (const std::exception& reason) {
      fail(reasonOf(reason), FrameOutcome::disk);
    }
  }
  --pending;
}

// Writes the sample that was held back until now, and holds `next` back.
void MovieRecorder::holdBack(HeldSample next) {
  if (!writer) prepare(next);
  if (held) {
    next.movieTime = write(*held, next.time, shortestSample);
  } else {
    // The first sample begins at zero, even if it was captured after the take's start.
    next.time = origin;
  }
  held = std::move(next);
}

void MovieRecorder::prepare(const HeldSample& first) {
  const auto format = first.sample->format();
  // This also refuses a file named just ".mp4".
  const bool usable = std::filesystem::path(path).extension() == ".mp4" &&
                      !platform.files->isNameUsed(path) && !platform.files->isNameUsed(staging) &&
                      format;
  if (!usable) throw EncoderFailure::message("invalid or existing recording destination");
  if (log && platform.files->isNameUsed(frameLogPath(path)))
    throw EncoderFailure::message("frame log exists");
  width = format->width();
  height = format->height();
  std::string error;
  writer = platform.movies->createWriter(staging, error);
  if (!writer) throw EncoderFailure::message(error);
  checkSpace();
  if (spaceIsShort) throw EncoderFailure::message("not enough free space");
  if (!writer->canAdd(*format)) throw EncoderFailure::message("recording format unavailable");
  openLog();
  origin = startedAt.value_or(first.time);
  if (sound && !writer->addTrack(sound->begin(platform.openSound, origin)))
    throw EncoderFailure::message("recording format unavailable");
  if (!writer->startWriting(format, options.rotation)) {
    throw EncoderFailure::message(writer->error().value_or("recording writer failed"));
  }
  lastProgressReport = platform.clock->uptime();
  if (sound) soundLater();  // to encode what has come so far
  tell(TakeState::recording, 0, "", path);
}

// If the log can't be opened, the take goes on without it.
void MovieRecorder::openLog() try {
  if (!log) return;
  const auto takeLines = [log = log] { return log->takeLines(); };
  hasLogFile = writer->openLog(frameLogPath(staging), takeLines, logFailure);
} catch (const std::exception& reason) {
  logFailure = reasonOf(reason);
}

std::optional<std::string> MovieRecorder::logError() const {
  if (!log) return std::nullopt;
  if (isLogAstray) return "the final name was unavailable";
  if (!logFailure.empty()) return logFailure;
  if (auto error = writer ? writer->logError() : std::nullopt) return error;
  return log->isIncomplete() ? std::optional("too many frames waited") : std::nullopt;
}

// Writes a sample that lasts until uptime `until`, but at least `shortest` movie units. Returns
// where it ends in the movie.
std::int64_t MovieRecorder::write(const HeldSample& sample, double until, std::int64_t shortest) {
  checkWriter();
  const MovieTiming timing = lastUntil(sample.movieTime, movieUnits(until - origin), shortest);
  if (!writer->append(*sample.sample, sample.keyframe, timing)) refuseSample();
  ++frames;
  if (log) {
    const double stands = static_cast<double>(timing.time) / movieTimescale;
    log->settle(sample.id, FrameOutcome::written, stands);
  }
  const double now = platform.clock->uptime();
  // The sample is written, so nothing may throw from here on.
  bestEffort([&] {
    recentWrites.push_back(now);
    if (options.minimumFree) recentBytes.emplace_back(now, sample.sample->dataLength().value_or(0));
  });
  checkSpace();
  const double duration =
      std::max(until - sample.time, static_cast<double>(shortest) / movieTimescale);
  writtenDuration = std::max(writtenDuration, sample.time - origin + duration);
  return timing.time + timing.duration;
}

void MovieRecorder::checkWriter() const {
  if (writer->status() != WriterStatus::writing) {
    throw EncoderFailure::message("recording writer unavailable");
  }
  // We don't wait for the disk. If the writer's queue is full, the take fails.
  if (!writer->isReadyForMoreMediaData()) {
    throw EncoderFailure::message("recording disk cannot keep up");
  }
}

void MovieRecorder::refuseSample() const {
  if (const auto error = writer->error()) throw EncoderFailure::message(*error);
  throw EncoderFailure::status("recording sample append", 0);
}

void MovieRecorder::checkSpace() {
  const auto free = options.minimumFree ? writer->freeBytes() : std::nullopt;
  if (free && std::cmp_less(*free, *options.minimumFree)) spaceIsShort = true;
}

// How long the space above the minimum lasts at the take's rate of the last ten seconds.
Json MovieRecorder::spaceLeft() {
  constexpr double window = 10;  // seconds
  const double now = platform.clock->uptime();
  while (!recentBytes.empty() && recentBytes.front().first < now - window) recentBytes.pop_front();
  const auto free = options.minimumFree ? writer->freeBytes() : std::nullopt;
  if (!free || recentBytes.empty() || recentBytes.front().first >= now) return Json::object();
  double bytes = 0;
  for (const auto& [time, size] : recentBytes) bytes += static_cast<double>(size);
  const double rate = bytes / (now - recentBytes.front().first);
  const double room = static_cast<double>(*free) - static_cast<double>(*options.minimumFree);
  if (rate <= 0) return Json::object();
  return {{"seconds_left", std::max(room / rate, 0.0)}};
}

void MovieRecorder::tell(TakeState state, double duration, const std::string& error,
                         const std::string& outputPath, Json more) {
  isConcluded = isLast(state);
  if (isConcluded && stoppedForSpace) more["stopped_for"] = "minimum_free";
  if (const auto problem = isConcluded ? logError() : std::nullopt)
    more["frame_log_error"] = *problem;
  if (sound) more["sound_gaps"] = sound->gaps();
  if (sound && isConcluded) more["sound_missing"] = sound->missing();
  const double now = platform.clock->uptime();
  std::erase_if(recentWrites, [now](double written) { return written <= now - 1.0; });
  TakeEvent event = makeTakeEvent({.id = id,
                                   .state = state,
                                   .path = outputPath,
                                   .targetFPS = profile.targetFPS,
                                   .duration = duration,
                                   .recentFPS = static_cast<double>(recentWrites.size()),
                                   .frames = frames,
                                   .dropped = dropped,
                                   .throttled = throttled,
                                   .width = width,
                                   .height = height,
                                   .error = error,
                                   .more = std::move(more)});
  platform.stateQueue->async(
      [self = shared_from_this(), event = std::move(event)] { self->report(event, self); });
}

void MovieRecorder::reportProgress() {
  queue->async([self = shared_from_this()] { self->progress(); });
}

void MovieRecorder::progress() {
  // `status()` alone is not enough: after a disk failure it stays `writing` until the next sample.
  if (!accepting || !writer || writer->status() != WriterStatus::writing || writer->error()) return;
  const double now = platform.clock->uptime();
  if (now - lastProgressReport < progressInterval) return;
  lastProgressReport = now;
  tell(TakeState::recording, writtenDuration, "", path, spaceLeft());
  if (sound) encodeSound();
}

}  // namespace lumora
