// Takes on the state queue: commands, the relay of a take's events, the decision to finish.

#include <utility>

#include "app/video_encoder.h"
#include "base/out_of_memory.h"
#include "base/reason.h"
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
  if (movie || movieFinishing || shutdownCode || path == nullptr ||
      !isRecordingDestination(*path)) {
    return reject("recording destination or state is invalid");
  }
  concludeAbandonedTake();
  const std::string& id = *findString(command, "id");
  movieStatus = makeTakeEvent({id, TakeState::starting, *path, profile->targetFPS});
  emit(movieStatus->json);
  ++takesStarted;
  try {
    beginTake(command, *profile, startedAt);
  } catch (const std::exception& error) {
    relayRecording(retryUntilAllocated([&] { return failedEvent(*movieStatus, reasonOf(error)); }),
                   takesStarted);
  }
}

void VideoEncoder::beginTake(const Json& command, const RecordingProfile& profile,
                             std::optional<double> startedAt) {
  // Another take of the same id may follow: only the latest has a say.
  const auto relay = [weak = weak_from_this(), queue = platform.stateQueue,
                      take = takesStarted](const TakeEvent& event) {
    queue->async([weak, take, event] {
      if (const auto self = weak.lock()) self->relayRecording(event, take);
    });
  };
  movie = std::make_shared<MovieRecorder>(*findString(command, "id"), *findString(command, "path"),
                                          startedAt, profile, requestedCadence(command), platform,
                                          relay);
  pendingMovieStop.reset();
  recordingForceIDR = true;
  platform.encoders->openAhead(profile.sessionSettings());
}

void VideoEncoder::stopRecording(const Json& command) {
  if (!movie || movie->id != *findString(command, "id") || movieFinishing) return;
  const double now = uptime();
  double stop = now;
  if (const Json* value = findValue(command, "stopped_at")) {
    const auto named = recordingTimestamp(*value, now);
    if (!named || (movie->startedAt && *movie->startedAt > *named)) {
      return movie->abort("recording stop time is invalid");
    }
    stop = *named;
  }
  pendingMovieStop = stop;
  finishMovieIfReady();
}

void VideoEncoder::relayRecording(const TakeEvent& event, std::uint64_t take) {
  if (take != takesStarted || !relaysEvent(*movieStatus, isTakeStopping(), event)) return;
  retryUntilAllocated([&] {
    TakeEvent told = event;  // copied first: once the line is out, nothing may throw
    emit(told.json);
    movieStatus = std::move(told);
  });
  // Whoever reads that a take is over may start the next one at once.
  if (event.state == TakeState::saved || event.state == TakeState::failed) takeEnded();
}

// A take that was given up reports it once its file is gone. Before another take begins or the
// process ends it is said without waiting for that.
void VideoEncoder::concludeAbandonedTake() {
  const auto reason = std::exchange(abandonedFor, std::nullopt);
  if (!reason) return;
  relayRecording(retryUntilAllocated([&] { return failedEvent(*movieStatus, *reason); }),
                 takesStarted);
}

bool VideoEncoder::isTakeStopping() const { return pendingMovieStop || movieFinishing; }

std::shared_ptr<MovieRecorder> VideoEncoder::recordingTake() const {
  return isTakeStopping() ? nullptr : movie;
}

void VideoEncoder::finishMovieIfReady() {
  if (raw.isBusy() || movieFinishing || !pendingMovieStop || !movie) return;
  movieFinishing = true;
  // No frame is in flight, so every sample of the take has reached the recorder.
  resetRecordingSession();
  const auto finished = [weak = weak_from_this(), queue = platform.stateQueue,
                         take = takesStarted] {
    retryUntilAllocated([&] {
      queue->async([weak, take] {
        if (const auto self = weak.lock()) self->movieFinished(take);
      });
    });
  };
  retryUntilAllocated([&] { movie->finish(*pendingMovieStop, finished); });
}

// A take that had failed before it was to be finished has told its end already.
void VideoEncoder::movieFinished(std::uint64_t take) {
  if (movieFinishing && take == takesStarted) takeEnded();
}

void VideoEncoder::takeEnded() {
  abandonedFor.reset();
  movie.reset();
  movieFinishing = false;
  pendingMovieStop.reset();
  if (!raw.isBusy()) resetRecordingSession();
  if (shutdownCode) exitNow(*shutdownCode);
}

}  // namespace lumora
