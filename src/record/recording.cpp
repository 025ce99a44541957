// Takes on the state queue: commands, the relay of a take's events, the decision to finish.

#include <utility>

#include "app/video_encoder.h"
#include "base/text.h"
#include "record/recording_command.h"
#include "record/recording_profile.h"
#include "record/take_event.h"

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
  const std::string* path = findString(command, "path");
  if (take.movie || shutdownCode || path == nullptr || !isRecordingDestination(*path)) {
    return reject("recording destination or state is invalid");
  }
  concludeAbandonedTake();
  const std::string& id = *findString(command, "id");
  tellParent(makeTakeEvent({id, TakeState::starting, *path, profile->targetFPS}));
  try {
    beginTake(command, *profile, startedAt);
  } catch (const std::exception& error) {
    tellParent(failedEvent(*take.movieStatus, reasonOf(error)));
  }
}

void VideoEncoder::beginTake(const Json& command, const RecordingProfile& profile,
                             std::optional<double> startedAt) {
  const auto relay = weakly(
      [](VideoEncoder& self, const TakeEvent& event, const std::shared_ptr<MovieRecorder>& from) {
        self.platform.stateQueue->async(self.weakly(&VideoEncoder::relayRecording, event, from));
      });
  take.movie = std::make_shared<MovieRecorder>(*findString(command, "id"),
                                               *findString(command, "path"), startedAt, profile,
                                               requestedCadence(command), platform, relay);
  platform.encoders->openAhead(profile.sessionSettings());
}

void VideoEncoder::stopRecording(const Json& command) {
  const auto& movie = take.movie;
  if (!movie || movie->id != *findString(command, "id") || take.movieFinishing) return;
  const double now = uptime();
  double stop = now;
  if (const Json* value = findValue(command, "stopped_at")) {
    const auto named = recordingTimestamp(*value, now);
    if (!named || (movie->startedAt && *movie->startedAt > *named)) {
      return movie->abort("recording stop time is invalid");
    }
    stop = *named;
  }
  take.pendingMovieStop = stop;
  finishMovieIfReady();
}

// Ids may come again, so a take is known by its recorder.
void VideoEncoder::relayRecording(const TakeEvent& event,
                                  const std::shared_ptr<MovieRecorder>& from) {
  if (from != take.movie && from != take.abandoned) return;
  if (relaysEvent(*take.movieStatus, take.isStopping(), event)) tellParent(event);
}

void VideoEncoder::tellParent(const TakeEvent& event) {
  take.movieStatus = event;
  emit(event.json);
  // A parent that reads that a take is over may start the next one at once.
  if (event.state == TakeState::saved || event.state == TakeState::failed) takeEnded();
}

// A take that was given up reports it once its file is gone. Before another take begins or the
// process ends, this reports it without waiting for that.
void VideoEncoder::concludeAbandonedTake() {
  if (take.abandoned) tellParent(failedEvent(*take.movieStatus, take.abandonedFor));
}

void VideoEncoder::finishMovieIfReady() {
  if (raw.isBusy() || take.movieFinishing || !take.pendingMovieStop || !take.movie) return;
  take.movieFinishing = true;
  // No frame is in flight, so every sample of the take has reached the recorder.
  take.resetRecordingSession();
  const auto finished = weakly([of = take.movie](VideoEncoder& self) {
    self.platform.stateQueue->async(self.weakly(&VideoEncoder::movieFinished, of));
  });
  take.movie->finish(*take.pendingMovieStop, finished);
}

// A take that failed before it was to be finished has ended already.
void VideoEncoder::movieFinished(const std::shared_ptr<MovieRecorder>& movie) {
  if (take.movie == movie) takeEnded();
}

void VideoEncoder::takeEnded() {
  take.abandoned.reset();
  take.movie.reset();
  take.movieFinishing = false;
  take.pendingMovieStop.reset();
  if (!raw.isBusy()) take.resetRecordingSession();
  if (shutdownCode) exitNow(*shutdownCode);
}

}  // namespace lumora
