// Taking and writing the samples of a take.

#include "record/movie_recorder.h"

#include <algorithm>
#include <filesystem>
#include <utility>

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
                             CadenceRule rule, const Platform& services, Report relay)
    : id(std::move(takeID)),
      path(std::move(destination)),
      startedAt(start),
      profile(std::move(takeProfile)),
      staging(path + "." + id + ".partial"),
      cadence{profile.targetFPS, rule, std::nullopt},
      platform(services),
      queue(services.dispatch->makeQueue("lumora.movie")),
      report(std::move(relay)) {}

bool MovieRecorder::append(std::shared_ptr<const EncodedSample> sample, double capturedAt,
                           bool keyframe) {
  {
    const std::lock_guard hold(lock);
    const bool early = startedAt && capturedAt < *startedAt;
    if (early || !accepting || pending >= maximumPending || (waitingIDR && !keyframe)) {
      ++dropped;
      waitingIDR = true;
      return false;
    }
    if (keyframe) waitingIDR = false;
    ++pending;
  }
  queue->async(
      [self = shared_from_this(), next = HeldSample{std::move(sample), keyframe, capturedAt}] {
        self->writeJob(next);
      });
  return true;
}

void MovieRecorder::countDropped() {
  const std::lock_guard hold(lock);
  ++dropped;
  waitingIDR = true;
}

void MovieRecorder::countThrottled() {
  const std::lock_guard hold(lock);
  ++throttled;
}

int MovieRecorder::pendingWork() {
  const std::lock_guard hold(lock);
  return pending;
}

void MovieRecorder::writeJob(HeldSample next) {
  if (!failed) {
    try {
      holdBack(std::move(next));
    } catch (const std::exception& reason) {
      fail(reasonOf(reason));
    }
  }
  const std::lock_guard hold(lock);
  --pending;
}

// Holds `next` back in place of the sample before it, whose duration is known now.
void MovieRecorder::holdBack(HeldSample next) {
  if (!writer) prepare(next);
  if (held) {
    next.movieTime = write(*held, next.time, shortestSample);
  } else {
    // The first sample stands at zero even when it was captured after the take's start.
    next.time = *origin;
  }
  held = std::move(next);
}

void MovieRecorder::prepare(const HeldSample& first) {
  const auto format = first.sample->format();
  const bool usable = path.starts_with('/') && std::filesystem::path(path).extension() == ".mp4" &&
                      !platform.files->isNameUsed(path) && !platform.files->isNameUsed(staging) &&
                      format;
  if (!usable) throw EncoderFailure::message("invalid or existing recording destination");
  width = format->width();
  height = format->height();
  std::string error;
  writer = platform.movies->createWriter(staging, error);
  if (!writer) throw EncoderFailure::message(error);
  if (!writer->canAdd(*format)) throw EncoderFailure::message("recording format unavailable");
  if (!writer->startWriting(format)) {
    throw EncoderFailure::message(writer->error().value_or("recording writer failed"));
  }
  origin = startedAt.value_or(first.time);
  lastProgressReport = platform.clock->uptime();
  tell(TakeState::recording, 0, "", path);
}

// Writes a sample that lasts until this uptime, but at least `shortest` movie units; where it ends
// in the movie.
std::int64_t MovieRecorder::write(const HeldSample& sample, double until, std::int64_t shortest) {
  if (!writer || !origin || writer->status() != WriterStatus::writing) {
    throw EncoderFailure::message("recording writer unavailable");
  }
  // There is no waiting: a disk that falls behind by more than the writer's queue ends the take.
  if (!writer->isReadyForMoreMediaData()) {
    throw EncoderFailure::message("recording disk cannot keep up");
  }
  const MovieTiming timing = lastUntil(sample.movieTime, movieUnits(until - *origin), shortest);
  if (!writer->append(*sample.sample, sample.keyframe, timing)) {
    if (const auto error = writer->error()) throw EncoderFailure::message(*error);
    throw EncoderFailure::status("recording sample append", 0);
  }
  ++frames;
  const double now = platform.clock->uptime();
  pruneRecentWrites(now);
  recentWrites.push_back(now);
  const double time = std::max(sample.time - *origin, 0.0);
  const double duration =
      std::max(until - sample.time, static_cast<double>(shortest) / movieTimescale);
  writtenDuration = std::max(writtenDuration, time + duration);
  return timing.time + timing.duration;
}

void MovieRecorder::pruneRecentWrites(double now) {
  while (!recentWrites.empty() && recentWrites.front() <= now - 1.0) recentWrites.pop_front();
}

void MovieRecorder::tell(TakeState state, double duration, const std::string& error,
                         const std::string& outputPath) {
  report(describe(state, duration, error, outputPath), shared_from_this());
}

TakeEvent MovieRecorder::describe(TakeState state, double duration, const std::string& error,
                                  const std::string& outputPath) {
  pruneRecentWrites(platform.clock->uptime());
  TakeReport told{id, state, outputPath, profile.targetFPS};
  told.duration = duration;
  told.recentFPS = static_cast<double>(recentWrites.size());
  told.frames = frames;
  told.width = width;
  told.height = height;
  told.error = error;
  {
    const std::lock_guard hold(lock);
    told.dropped = dropped;
    told.throttled = throttled;
  }
  return makeTakeEvent(told);
}

void MovieRecorder::reportProgress() {
  queue->async([self = shared_from_this()] { self->progress(); });
}

void MovieRecorder::progress() {
  {
    const std::lock_guard hold(lock);
    if (!accepting) return;
  }
  // A writer whose disk has failed goes on "writing" until its next sample.
  if (failed || !writer || writer->status() != WriterStatus::writing || writer->error()) return;
  const double now = platform.clock->uptime();
  if (now - lastProgressReport < progressInterval) return;
  lastProgressReport = now;
  tell(TakeState::recording, writtenDuration, "", path);
}

void MovieRecorder::fail(const std::string& message) {
  if (failed) return;
  failed = true;
  held.reset();
  {
    const std::lock_guard hold(lock);
    accepting = false;
  }
  // Only a file that this take made is this take's to delete.
  if (writer) {
    writer->cancelWriting();
    platform.files->remove(staging);
  }
  tell(TakeState::failed, 0, message, path);
}

}  // namespace lumora
