// The end of a take that fails: its file is deleted or kept.

#include <filesystem>

#include "base/movie_names.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"
#include "record/movie_timing.h"

namespace lumora {

void MovieRecorder::abort(const std::string& message, FrameOutcome cause) {
  accepting = false;
  queue->async([self = shared_from_this(), message, cause] { self->fail(message, cause); });
}

void MovieRecorder::fail(const std::string& message, FrameOutcome cause) {
  if (failed) return;
  failed = true;
  failure = message;
  if (log && cause == FrameOutcome::disk) log->end(cause);  // before the next frame is refused
  accepting = false;
  const bool keeps = options.keepsFailed && writer && writer->synced().frames > 0;
  if (!keeps) {
    held.reset();
    removeFile();
    return tell(TakeState::failed, 0, failure, path);
  }
  if (cause == FrameOutcome::disk || !keepAll(cause)) rescue();
  // If the disk hangs, the writer never answers.
  queue->asyncAfter(rescueTimeout, [self = shared_from_this()] {
    if (!self->isConcluded) self->kept(self->writer->synced(), false);
  });
}

// Completes the file with every sample. False if that is impossible.
bool MovieRecorder::keepAll(FrameOutcome rest) try {
  if (!held) return false;
  endMovie(held->time - origin + 1.0 / profile.targetFPS, rest);
  return true;
} catch (const std::exception&) {
  return false;
}

void MovieRecorder::rescue() {
  held.reset();
  if (log) log->end(FrameOutcome::disk);
  writer->rescue([self = shared_from_this()](MovieExtent extent, bool isComplete) {
    self->queue->async([self, extent, isComplete] { self->kept(extent, isComplete); });
  });
}

// A file that could not be completed keeps its name, since it is no ordinary movie yet.
void MovieRecorder::kept(MovieExtent extent, bool isComplete) {
  if (isConcluded) return;
  Json more = Json::object();
  if (extent.frames > 0) {
    const std::string recovery = recoveryPath(path, id);
    const bool isRenamed = isComplete && moveTo(recovery);
    more = {{"kept_path", std::filesystem::path(isRenamed ? recovery : staging).filename()},
            {"kept_frames", extent.frames},
            {"kept_duration", static_cast<double>(extent.duration) / movieTimescale}};
  } else {
    removeLog();  // somebody has removed the file
  }
  tell(TakeState::failed, 0, failure, path, more);
}

// Without a writer this take has made no file. A file of that name belongs to somebody else.
void MovieRecorder::removeFile() {
  if (!writer) return;
  writer->cancelWriting();
  platform.files->remove(staging);
  removeLog();
}

void MovieRecorder::removeLog() {
  if (hasLogFile) platform.files->remove(frameLogPath(staging));
}

}  // namespace lumora
