#include "tools/viewer/camera.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace lumora::viewer {

Camera::Camera(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
               std::unique_ptr<tools::Microphone> microphone, int framesPerSecond,
               Handlers handlers)
    : handlers_(std::move(handlers)),
      source_(std::move(source)),
      microphone_(std::move(microphone)),
      beeps_(options.sound && !microphone_ ? std::optional(tools::Beeps()) : std::nullopt),
      framesPerSecond_(framesPerSecond),
      helper_(tools::helperFor(*source_, options),
              [this](const client::Event& event) {
                const auto* exited = std::get_if<client::Exited>(&event.what);
                if (exited != nullptr) return handlers_.ended(*exited);
                handlers_.event(event.line);
              }),
      feeder_([this](const std::stop_token& stop) { feed(stop); }) {
  if (!microphone_) return;
  listener_ = std::jthread([this](const std::stop_token& stop) { listen(stop); });
}

void Camera::feed(const std::stop_token& stop) {
  using Clock = std::chrono::steady_clock;
  const auto interval = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(1.0 / framesPerSecond_));
  auto due = Clock::now();
  std::uint64_t lastID = 0;
  for (std::uint64_t number = 1; !stop.stop_requested(); ++number) {
    if (!source_->keepsTime()) std::this_thread::sleep_until(due);
    auto capturedAt = client::Uptime::now();
    const auto picture = source_->next(number, capturedAt.time_since_epoch().count());
    if (picture.empty()) {
      if (!stop.stop_requested()) handlers_.inputEnded(number - 1);
      break;
    }
    if (source_->keepsTime()) capturedAt = client::Uptime::now();
    // Frames do not catch up after the source was late. ffmpeg is late with a file's first frame.
    due = std::max(due, Clock::now() - interval) + interval;
    lastID = std::max(lastID + 1, client::frameID(capturedAt));
    helper_.writeFrame(source_->size(), lastID, picture);
    if (beeps_) beeps_->write(helper_, capturedAt, source_->flashes(number));
  }
  helper_.stop();
}

void Camera::listen(const std::stop_token& stop) {
  const auto [rate, channels] = tools::soundFormat;
  for (bool hasHeard = false; !stop.stop_requested(); hasHeard = true) {
    const auto samples = microphone_->next();
    if (stop.stop_requested()) return;
    if (samples.empty()) return handlers_.soundEnded(hasHeard);
    const client::Seconds length(static_cast<double>(std::ssize(samples)) / channels / rate);
    helper_.writeSound(samples, client::Uptime::now() - length);
  }
}

void Camera::stop() {
  feeder_.request_stop();
  listener_.request_stop();
  source_->stop();
  if (microphone_) microphone_->stop();
}

}  // namespace lumora::viewer
