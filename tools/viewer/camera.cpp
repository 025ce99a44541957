#include "tools/viewer/camera.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

#include <lumora/uptime.h>

namespace lumora::viewer {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

Camera::Camera(const client::LaunchOptions& launch, std::unique_ptr<tools::FrameSource> source,
               int framesPerSecond, Handlers handlers)
    : helper_(launch),
      source_(std::move(source)),
      framesPerSecond_(framesPerSecond),
      handlers_(std::move(handlers)),
      events_([this] { readEvents(); }),
      feeder_([this](const std::stop_token& stop) { feed(stop); }) {}

Camera::~Camera() {
  feeder_.request_stop();
  if (!ended_) kill(helper_.pid(), SIGKILL);
}

void Camera::feed(const std::stop_token& stop) {
  const auto interval = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(1.0 / framesPerSecond_));
  auto due = Clock::now();
  for (std::uint64_t number = 1; !stop.stop_requested(); ++number) {
    if (!source_->keepsTime()) std::this_thread::sleep_until(due);
    double capturedAt = client::uptime();
    const auto picture = source_->next(number, capturedAt);
    if (picture.empty()) {
      handlers_.inputEnded(number - 1);
      break;
    }
    if (source_->keepsTime()) capturedAt = client::uptime();
    // A file takes its time to open, and whoever was stopped for a while catches up on nothing.
    due = std::max(due, Clock::now() - interval) + interval;
    writeCommands();
    if (!helper_.writeFrame(source_->size(), client::frameID(capturedAt), picture)) break;
  }
  writeCommands();
  helper_.closeInput();
}

void Camera::writeCommands() {
  std::vector<tools::Event> commands;
  {
    const std::lock_guard hold(mutex_);
    commands.swap(commands_);
  }
  for (const tools::Event& command : commands) helper_.writeCommand(command);
}

void Camera::readEvents() {
  while (const auto line = helper_.nextLine(3600)) handlers_.event(*line);
  // Its output has ended, so it has, or is about to.
  for (;;) {
    const auto status = helper_.wait(3600);
    if (!status) continue;
    ended_ = true;
    return handlers_.ended(*status);
  }
}

void Camera::command(const tools::Event& command) {
  const std::lock_guard hold(mutex_);
  commands_.push_back(command);
}

// A camera that hangs keeps the feeder from ending the input, so the helper is told, too.
void Camera::stop() {
  feeder_.request_stop();
  if (!ended_) kill(helper_.pid(), SIGTERM);
}

}  // namespace lumora::viewer
