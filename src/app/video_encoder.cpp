// Start, timer, shutdown and end of the service, and how it emits events.

#include "app/video_encoder.h"

#include <csignal>

#include "app/event.h"
#include "base/out_of_memory.h"
#include "encode/session_settings.h"

namespace lumora {

void VideoEncoder::start() {
  if (configuration.sound) {
    sound = std::make_shared<SoundInput>(*configuration.sound, platform.clock, *platform.dispatch);
    sound->setFailureHandler(weakly(&VideoEncoder::soundFailed));
  }
  platform.encoders->prepare(
      sessionSettings(SessionKind::preview,
                      {configuration.previewWidth, configuration.previewHeight}, previewTargetFPS),
      defaultProfile.sessionSettings());
  platform.stateQueue->setFailureHandler(weakly(&VideoEncoder::fail));
  listener = platform.network->makeListener(configuration.host, configuration.port);
  listener->setConnectionHandler(weakly(&VideoEncoder::accept));
  listener->setStateHandler(weakly(&VideoEncoder::listenerChanged));
  serviceTickLater();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    auto source = platform.process->onSignal(signal, weakly(&VideoEncoder::requestShutdown));
    if (source) signals.push_back(std::move(source));
  }
  listener->start();
}

void VideoEncoder::listenerChanged(ListenerState state) {
  if (!running) return;
  if (state == ListenerState::failed) return fail("video listener failed");
  if (listener->port() == 0) return fail("listener has no port");
  // "ready" waits for the preview's encoder, but at most `prepareTimeout`. The parent starts to
  // send frames when it reads "ready". An encoder that opens later competes with the frames for the
  // CPU: opening takes several times as long, and frames are dropped.
  platform.encoders->whenPrepared(weakly(&VideoEncoder::becomeReady));
  platform.stateQueue->asyncAfter(prepareTimeout, weakly(&VideoEncoder::becomeReady));
}

void VideoEncoder::becomeReady() {
  if (!running || std::exchange(ready, true)) return;
  Json event = {{"type", "ready"},
                {"port", listener->port()},
                {"recording_hd", true},
                {"recording_mirror", true},
                {"recording_width", defaultProfile.width},
                {"recording_height", defaultProfile.height},
                {"recording_profiles", true},
                {"recording_timebase", true}};
  if (sound) event["recording_sound"] = true;
  emit(event);
  emitStats(true);
  listener->acceptConnections();
  platform.dispatch->runDetached("lumora.reader", weakly(&VideoEncoder::readFrames));
  platform.encoders->warmUp(defaultProfile.sessionSettings(), largestProfile.sessionSettings());
}

void VideoEncoder::serviceTickLater() {
  platform.stateQueue->asyncAfter(serviceInterval, weakly(&VideoEncoder::serviceTick));
}

void VideoEncoder::serviceTick() {
  if (!running) return;
  serviceTickLater();
  sweepPeers();
  stopTakeWithoutSpace();
  // The recorder of an abandoned take sends the "failed" event within `rescueTimeout`. If it has
  // not come after `shutdownTimeout`, which is longer, the recorder's queue hangs, and we emit the
  // event ourselves.
  if (take.isRescuing() && uptime() >= take.abandonedAt + shutdownTimeout) concludeAbandonedTake();
  emitStats(false);
}

void VideoEncoder::fail(const std::string& message) {
  // The watchdog comes first, since the next steps need memory and may throw.
  platform.process->armWatchdog(watchdogTimeout, 1);
  bestEffort([&] { emit(errorEvent(message)); });
  shutdown(1);
}

void VideoEncoder::requestShutdown() {
  platform.process->armWatchdog(watchdogTimeout, 0);
  platform.stateQueue->async(weakly(&VideoEncoder::shutdown, 0));
}

void VideoEncoder::requestFailure(const std::string& message) {
  platform.process->armWatchdog(watchdogTimeout, 1);
  platform.stateQueue->async(weakly(&VideoEncoder::fail, message));
}

void VideoEncoder::shutdown(int code) {
  if (!running || shutdownCode) return;
  shutdownCode = code;
  platform.process->rearmWatchdog(watchdogTimeout, code);
  if (!take.movie && !take.abandoned) return exitNow(code);
  take.pendingMovieStop = uptime();
  if (take.movie) take.movie->limitEnd(uptime() + MovieRecorder::rescueTimeout);
  finishMovieIfReady();
  platform.stateQueue->asyncAfter(shutdownTimeout,
                                  [self = shared_from_this(), code] { self->exitNow(code); });
}

void VideoEncoder::exitNow(int code) {
  if (!running) return;
  running = false;
  concludeAbandonedTake();
  bestEffort([this] {
    if (listener) listener->cancel();
    preview.close();
    take.resetRecordingSession();
    for (const auto& signal : signals) signal->cancel();
  });
  platform.process->exit(code);
}

void VideoEncoder::emit(const Json& event) {
  const auto line = eventLine(event);
  if (!line) return;
  const auto* text = reinterpret_cast<const std::uint8_t*>(line->data());
  const ssize_t written = platform.process->writeOutput({text, line->size()});
  // We never wait for the parent to read. If the pipe is full, the line or its rest is lost.
  const bool broken = written < 0 && written != -EAGAIN && written != -EWOULDBLOCK;
  if (broken && running) shutdown(0);
}

}  // namespace lumora
