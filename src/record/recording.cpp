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
  TakeReport report{id, TakeState::starting, *path, profile->targetFPS};
  movieStatus = makeTakeEvent(report);
  emit(movieStatus->json);
  ++takesStarted;
  try {
    beginTake(command, *profile, startedAt);
  } catch (const std::exception& error) {
    report.state = TakeState::failed;
    const TakeEvent failed = retryUntilAllocated([&] {
      report.error = reasonOf(error);
      return makeTakeEvent(report);
    });
    relayRecording(failed, takesStarted);
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
    TakeEvent told = event;
    emit(told.json);
    movieStatus = std::move(told);
  });
  // While the take is being finalised its end clears it: see `movieFinished`.
  if (event.state != TakeState::failed || movieFinishing) return;
  abandonedFor.reset();
  movie.reset();
  pendingMovieStop.reset();
  if (!raw.isBusy()) resetRecordingSession();
  if (shutdownCode) exitNow(*shutdownCode);
}

// A take that was given up reports it once its file is gone. Before another take begins or the
// process ends it is said without waiting for that.
void VideoEncoder::concludeAbandonedTake() {
  if (abandonedFor) relayRecording(failedEvent(*movieStatus, *abandonedFor), takesStarted);
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
  const auto finished = [weak = weak_from_this(), queue = platform.stateQueue] {
    retryUntilAllocated([&] {
      queue->async([weak] {
        if (const auto self = weak.lock()) self->movieFinished();
      });
    });
  };
  retryUntilAllocated([&] { movie->finish(*pendingMovieStop, finished); });
}

void VideoEncoder::movieFinished() {
  movie.reset();
  movieFinishing = false;
  pendingMovieStop.reset();
  if (shutdownCode) exitNow(*shutdownCode);
}

}  // namespace lumora
