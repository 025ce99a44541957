// The end of a take: its last sample, its file, its final name.

#include <utility>

#include "base/movie_names.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"
#include "record/movie_timing.h"

namespace lumora {

void MovieRecorder::finish(double stop) {
  accepting = false;
  queue->async([self = shared_from_this(), stop] { self->finishJob(stop); });
}

void MovieRecorder::finishJob(double stop) {
  if (failed) return;
  try {
    if (!held) throw EncoderFailure::message("no camera frames were received for recording");
    awaitedEnd = movieEndTime(startedAt, origin, held->time, stop, profile.targetFPS);
    if (!sound) return endAwaited();
    if (sound->isSettledUntil(origin + *awaitedEnd)) return endSound();
    waitForSound();
  } catch (const std::exception& reason) {
    fail(reasonOf(reason), FrameOutcome::disk);
  }
}

// Ends the movie at `awaitedEnd`. By now its sound is written, unless `limitEnd` left no time for
// that.
void MovieRecorder::endAwaited() {
  try {
    const double end = *std::exchange(awaitedEnd, std::nullopt);
    if (sound) sound->endAt(origin + end);
    endMovie(end, FrameOutcome::afterStop);
    tell(TakeState::finishing, end, "", path);
  } catch (const std::exception& reason) {
    fail(reasonOf(reason), FrameOutcome::disk);
  }
}

// If the sample that was held back begins before `end`, writes it. Then completes the file.
void MovieRecorder::endMovie(double end, FrameOutcome rest) {
  if (held->time < origin + end) write(*held, origin + end, shortestLastSample);
  completeFile(movieUnits(end), end, rest);
}

// Ends the log before the movie. So the disk thread has written all of the log when it calls the
// handler of `finishWriting`. Frames without an outcome get `rest`. `end` becomes the duration in a
// "saved" event.
void MovieRecorder::completeFile(std::int64_t units, double end, FrameOutcome rest) {
  held.reset();
  if (log) log->end(rest);
  writer->finishWriting(units, [self = shared_from_this(), end] {
    self->queue->async([self, end] { self->movieEnded(end); });
  });
}

// Tries one name after the other. If none is free, the complete movie stays at its staging path.
void MovieRecorder::movieEnded(double end) {
  const bool isComplete = writer->status() == WriterStatus::completed;
  if (failed) return isComplete ? nameKept(writer->extent(), true) : rescue();
  if (!isComplete)
    return fail(writer->error().value_or("recording finalization failed"), FrameOutcome::disk);
  if (moveTo(path)) return saved(end, "", path);
  const std::string recovery = recoveryPath(path, id);
  if (moveTo(recovery)) {
    return saved(
        end, "Final filename was unavailable. Completed video saved at the recovery path shown.",
        recovery);
  }
  saved(end,
        "Final filename was unavailable. Completed video preserved at the staging path shown; "
        "rename it to .mp4.",
        staging);
}

// Renames the movie, then its log. False if the movie can't have this name. The second rename
// follows at once, so that a kill hardly ever comes between the two.
bool MovieRecorder::moveTo(const std::string& name) {
  if (!platform.files->move(staging, name)) return false;
  if (hasLogFile && !platform.files->move(frameLogPath(staging), frameLogPath(name)))
    isLogAstray = true;
  platform.files->syncFolderOf(name);
  return true;
}

void MovieRecorder::saved(double end, const std::string& error, const std::string& outputPath) {
  Json more = Json::object();
  if (options.keepsFailed) more["frames_in_movie"] = writer->extent().frames;
  tell(TakeState::saved, end, error, outputPath, more);
}

}  // namespace lumora
