// The end of a take that fails: its file is deleted or kept.

#include <algorithm>
#include <filesystem>

#include "base/movie_names.h"
#include "base/out_of_memory.h"
#include "record/movie_recorder.h"
#include "record/movie_timing.h"

namespace lumora {

void MovieRecorder::abort(const std::string& message, FrameOutcome cause) {
  accepting = false;
  queue->async([self = shared_from_this(), message, cause] { self->fail(message, cause); });
}

// A failure of sound does not matter once the take knows where its sound ends.
void MovieRecorder::soundFailed(const std::string& message) {
  queue->async([self = shared_from_this(), message] {
    if (self->sound && !self->sound->isEnding()) self->fail(message, FrameOutcome::encoder);
  });
}

void MovieRecorder::fail(const std::string& message, FrameOutcome cause) {
  if (failed) return;
  failed = true;
  failure = message;
  const bool diskKeepsUp = writer && !writer->error() && writer->isReadyForMoreMediaData();
  accepting = false;
  if (!options.keepsFailed || !writer || writer->synced().frames == 0) {
    held.reset();
    removeFile();
    return tell(TakeState::failed, 0, failure, path);
  }
  const double latest = std::min(latestEnd.load(), platform.clock->uptime() + rescueTimeout);
  if (!diskKeepsUp || !keepAll(cause)) rescue();
  // If the disk hangs, the writer never answers. The take then ends after `left` seconds.
  const double left = std::max(latest - platform.clock->uptime(), 0.0);
  queue->asyncAfter(
      left, [self = shared_from_this()] { self->kept(self->writer->synced(), self->staging); });
}

// Completes the file with every sample, except the last if it can't be written. False if the file
// can't be completed.
bool MovieRecorder::keepAll(FrameOutcome rest) try {
  if (!held) return false;
  std::int64_t end = held->movieTime;
  bestEffort([&] { end = write(*held, held->time + 1.0 / profile.targetFPS, shortestLastSample); });
  const double seconds = static_cast<double>(end) / movieTimescale;
  if (sound) bestEffort([&] { keepSound(origin + seconds); });
  completeFile(end, 0, rest);
  return true;
} catch (const std::exception&) {
  return false;
}

void MovieRecorder::rescue() try {
  held.reset();
  if (log) log->end(FrameOutcome::disk);
  writer->rescue([self = shared_from_this()](MovieExtent extent, bool isComplete) {
    self->queue->async([self, extent, isComplete] { self->nameKept(extent, isComplete); });
  });
} catch (const std::exception&) {  // no memory
  kept(writer->synced(), staging);
}

// A file that could not be completed keeps its staging name: it still has to be recovered. The disk
// may hang during a rename, so the rename has a thread of its own.
void MovieRecorder::nameKept(MovieExtent extent, bool isComplete) try {
  if (isConcluded || !isComplete) return kept(extent, staging);
  platform.dispatch->runDetached("lumora.rename", [self = shared_from_this(), extent] {
    const std::string recovery = recoveryPath(self->path, self->id);
    const std::string name = self->moveTo(recovery) ? recovery : self->staging;
    self->queue->async([self, extent, name] { self->kept(extent, name); });
  });
} catch (const std::exception&) {  // no thread
  kept(extent, staging);
}

void MovieRecorder::kept(MovieExtent extent, const std::string& file) {
  if (isConcluded) return;
  Json more = Json::object();
  if (extent.frames > 0) {
    more = {{"kept_path", std::filesystem::path(file).filename()},
            {"kept_frames", extent.frames},
            {"kept_duration", static_cast<double>(extent.duration) / movieTimescale}};
  } else {
    // Another program has removed the movie. So remove its log.
    if (hasLogFile) platform.files->remove({frameLogPath(staging)});
  }
  tell(TakeState::failed, 0, failure, path, more);
}

// Without a writer this take has made no file. A file at `staging` then belongs to somebody else.
void MovieRecorder::removeFile() {
  if (!writer) return;
  writer->cancelWriting();
  std::vector<std::string> files = {staging};
  if (hasLogFile) files.push_back(frameLogPath(staging));
  platform.files->remove(files);
}

}  // namespace lumora
