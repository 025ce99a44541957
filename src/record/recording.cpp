// The part of takes that runs on the state queue: commands, events for the parent, ends of takes.

#include "app/video_encoder.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/recording_command.h"

namespace lumora {

void VideoEncoder::recordingCommand(ByteView payload) {
  const auto command = parseRecordingCommand(payload);
  if (!command) return fail("invalid recording command");
  const std::string& type = *findString(*command, "type");
  if (type == "record_start") return startRecording(*command);
  if (type == "record_stop") return stopRecording(*command);
  fail("unknown recording command");
}

void VideoEncoder::startRecording(const Json& command) {
  const auto reject = [&](const char* message) { emit(rejectionEvent(command, message)); };
  const auto profile = RecordingProfile::parse(command);
  if (!profile) return reject("recording resolution or target frame rate is invalid");
  std::optional<double> startedAt;
  if (const Json* value = findValue(command, "started_at")) {
    startedAt = recordingTimestamp(*value, uptime());
    if (!startedAt) return reject("recording start time is invalid");
  }
  TakeOptions options;
  try {
    options = TakeOptions::parse(command, configuration.sound);
  } catch (const EncoderFailure& invalid) {
    return reject(invalid.what());
  }
  const std::string* path = findString(command, "path");
  if (take.movie || take.isRescuing() || shutdownCode || path == nullptr ||
      !isRecordingDestination(*path)) {
    return reject("recording destination or state is invalid");
  }
  concludeAbandonedTake();
  const std::string& id = *findString(command, "id");
  tellParent(makeTakeEvent({id, TakeState::starting, *path, profile->targetFPS}));
  try {
    take.movie = std::make_shared<MovieRecorder>(id, *path, startedAt, *profile, options, platform,
                                                 weakly(&VideoEncoder::relayRecording));
    raw.setLogged(options.frameLog);
    if (options.sound) take.movie->hear(sound);
    platform.encoders->openAhead(take.movie->sessionSettings());
  } catch (const std::exception& error) {
    tellParent(failedEvent(*take.movieStatus, reasonOf(error)));
  }
}

// Lost sound matters only to a take.
void VideoEncoder::soundFailed(const std::string& reason) {
  platform.stateQueue->async(weakly([reason](VideoEncoder& self) {
    if (self.take.movie) self.take.movie->soundFailed(reason);
  }));
}

void VideoEncoder::stopRecording(const Json& command) {
  const auto& movie = take.movie;
  if (!movie || movie->id != *findString(command, "id") || take.movieFinishing) return;
  const double now = uptime();
  double stop = now;
  if (const Json* value = findValue(command, "stopped_at")) {
    const auto named = recordingTimestamp(*value, now);
    if (!named || (movie->startedAt && *movie->startedAt > *named)) {
      return movie->abort("recording stop time is invalid", FrameOutcome::afterStop);
    }
    stop = *named;
  }
  take.pendingMovieStop = stop;
  finishMovieIfReady();
}

// Compares recorders, since two takes may have the same id.
void VideoEncoder::relayRecording(const TakeEvent& event,
                                  const std::shared_ptr<MovieRecorder>& from) {
  if (from != take.movie && from != take.abandoned) return;
  if (relaysEvent(*take.movieStatus, take.isStopping(), event)) tellParent(event);
}

void VideoEncoder::tellParent(const TakeEvent& event) {
  take.movieStatus = event;
  emit(event.json);
  // The take ends at once, since a parent that reads this event may start the next take.
  if (isLast(event.state)) takeEnded();
}

// Stops the take once its file system has less free space than the minimum.
void VideoEncoder::stopTakeWithoutSpace() {
  const auto movie = take.recordingTake();
  if (!movie || !movie->lacksSpace()) return;
  movie->noteStopForSpace();
  take.pendingMovieStop = uptime();
  finishMovieIfReady();
}

// The recorder of an abandoned take sends the "failed" event once it has deleted or kept the file.
// This function emits it earlier if another take begins, if the process ends, or if the file is to
// be kept and the recorder's queue hangs.
void VideoEncoder::concludeAbandonedTake() {
  if (take.abandoned) tellParent(failedEvent(*take.movieStatus, take.abandonedFor));
}

void VideoEncoder::finishMovieIfReady() {
  if (raw.isBusy() || take.movieFinishing || !take.pendingMovieStop || !take.movie) return;
  take.movieFinishing = true;
  // No frame is in flight, so the recorder has every sample of the take.
  take.resetRecordingSession();
  take.movie->finish(*take.pendingMovieStop);
}

void VideoEncoder::takeEnded() {
  take.abandoned.reset();
  take.movie.reset();
  take.movieFinishing = false;
  take.pendingMovieStop.reset();
  raw.setLogged(false);
  if (sound) sound->sendTo(nullptr);
  if (!raw.isBusy()) take.resetRecordingSession();
  if (shutdownCode) exitNow(*shutdownCode);
}

void CurrentTake::resetRecordingSession() {
  if (recording.session) {
    recording.session->completeFrames();
    recording.session->invalidate();
  }
  recording = {};
}

void CurrentTake::abandon(const std::string& reason, double now) {
  ++recordingEncoderFailures;
  abandonedFor = reason;
  abandonedAt = now;
  abandoned = std::exchange(movie, nullptr);
  pendingMovieStop.reset();
  abandoned->limitEnd(now + MovieRecorder::rescueTimeout);
  abandoned->abort(reason, FrameOutcome::encoder);
}

void CurrentTake::logFrame(const ReadFrame& frame, std::optional<FrameOutcome> outcome) const {
  if (movie && movie->log)
    movie->log->note(frame, isStopping() ? FrameOutcome::afterStop : outcome);
}

}  // namespace lumora
