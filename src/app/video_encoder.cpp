// Construction, start, shutdown and end of the service.

#include "app/video_encoder.h"

#include <csignal>
#include <utility>

#include "app/event.h"
#include "base/limits.h"
#include "base/out_of_memory.h"
#include "encode/session_settings.h"
#include "record/recording_profile.h"

namespace lumora {

VideoEncoder::VideoEncoder(const Configuration& configuration, Platform services)
    : platform(std::move(services)),
      host(configuration.host),
      port(configuration.port),
      token(configuration.token),
      previewWidth(configuration.previewWidth),
      previewHeight(configuration.previewHeight),
      exactPreviewDimensions(configuration.exactPreviewDimensions) {}

void VideoEncoder::start() {
  platform.encoders->prepare(
      sessionSettings(SessionKind::preview, {previewWidth, previewHeight}, previewTargetFPS),
      RecordingProfile::defaultProfile().sessionSettings());
  const auto weak = weak_from_this();
  platform.stateQueue->setFailureHandler([weak](const std::string& reason) {
    if (const auto self = weak.lock()) self->fail(reason);
  });
  listener = platform.network->makeListener(host, port);
  listener->setConnectionHandler([weak](std::shared_ptr<TcpConnection> connection) {
    if (const auto self = weak.lock()) self->accept(std::move(connection));
  });
  listener->setStateHandler([weak](ListenerState state) {
    if (const auto self = weak.lock()) self->listenerChanged(state);
  });
  timer = platform.dispatch->makeTimer(serviceInterval, [weak] {
    if (const auto self = weak.lock()) self->serviceTick();
  });
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    auto source = platform.process->onSignal(signal, [weak] {
      if (const auto self = weak.lock()) self->requestShutdown();
    });
    if (source) signals.push_back(std::move(source));
  }
  listener->start();
}

void VideoEncoder::listenerChanged(ListenerState state) {
  if (!running) return;
  if (state == ListenerState::failed) fail("video listener failed");
  if (state != ListenerState::ready) return;
  if (listener->port() == 0) {
    fail("listener has no port");
    return;
  }
  // Whoever is told that the service is ready feeds it at once, and encoders that open under that
  // load take several times as long: frames would be lost meanwhile.
  const auto becomeReady = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->becomeReady();
  };
  platform.encoders->whenPrepared(becomeReady);
  platform.stateQueue->asyncAfter(prepareTimeout, becomeReady);
}

void VideoEncoder::becomeReady() {
  if (!running || std::exchange(ready, true)) return;
  emit({{"type", "ready"},
        {"port", listener->port()},
        {"recording_hd", true},
        {"recording_mirror", true},
        {"recording_width", mirroredRecordingWidth},
        {"recording_height", mirroredRecordingHeight},
        {"recording_profiles", true},
        {"recording_timebase", true}});
  emitStats(true);
  listener->acceptConnections();
  platform.dispatch->runDetached("lumora.reader", [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->readFrames();
  });
  platform.encoders->warmUp(RecordingProfile::defaultProfile().sessionSettings(),
                            RecordingProfile::largestProfile().sessionSettings());
}

void VideoEncoder::serviceTick() {
  if (!running) return;
  sweepPeers();
  emitStats(false);
}

void VideoEncoder::fail(const std::string& message) {
  platform.process->armWatchdog(watchdogTimeout, 1);  // first: memory may never come
  retryUntilAllocated([&] { emit(errorEvent(message)); });
  shutdown(1);
}

void VideoEncoder::requestShutdown() {
  platform.process->armWatchdog(watchdogTimeout, 0);
  retryUntilAllocated([this] {
    platform.stateQueue->async([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->shutdown(0);
    });
  });
}

void VideoEncoder::requestFailure(const std::string& message) {
  platform.process->armWatchdog(watchdogTimeout, 1);
  retryUntilAllocated([&] {
    platform.stateQueue->async([weak = weak_from_this(), message] {
      if (const auto self = weak.lock()) self->fail(message);
    });
  });
}

void VideoEncoder::shutdown(int code) {
  if (!running || shutdownCode) return;
  shutdownCode = code;
  platform.process->rearmWatchdog(watchdogTimeout, code);
  if (!movie && !movieFinishing && !abandonedFor) return exitNow(code);
  pendingMovieStop = uptime();
  finishMovieIfReady();
  // Without memory for it the watchdog does the same, if less tidily.
  bestEffort([&] {
    platform.stateQueue->asyncAfter(shutdownTimeout,
                                    [self = shared_from_this(), code] { self->exitNow(code); });
  });
}

void VideoEncoder::exitNow(int code) {
  if (!running) return;
  running = false;
  concludeAbandonedTake();
  bestEffort([this] { closeEverything(); });
  platform.process->exit(code);
}

void VideoEncoder::closeEverything() {
  if (timer) timer->cancel();
  if (listener) listener->cancel();
  for (const auto& [id, peer] : peers) peer->connection->cancel();
  peers.clear();
  if (session) {
    session->completeFrames();
    session->invalidate();
    session.reset();
  }
  resetRecordingSession();
  for (const auto& signal : signals) signal->cancel();
}

void VideoEncoder::emit(const Json& event) {
  const auto line = eventLine(event);
  if (!line) return;
  const auto* text = reinterpret_cast<const std::uint8_t*>(line->data());
  const ssize_t written = platform.process->writeOutput({text, line->size()});
  // A full pipe loses the line, a short write its rest: the parent never slows the service down.
  const bool broken = written < 0 && written != -EAGAIN && written != -EWOULDBLOCK;
  if (broken && running) shutdown(0);
}

}  // namespace lumora
