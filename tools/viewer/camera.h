#pragma once

#include <lumora/helper.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tools/frame_source.h"

namespace lumora::viewer {

// A camera application in small: starts the helper and feeds it pictures at a steady rate, numbered
// by the time of their capture.
class Camera {
 public:
  // Called on threads of the camera's own.
  struct Handlers {
    std::function<void(const std::string& line)> event;    // of the helper, as it stands
    std::function<void(std::uint64_t frames)> inputEnded;  // the source, after so many
    std::function<void(client::Exited)> ended;             // the helper; the last call
  };
  // Throws client::StartError.
  Camera(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
         int framesPerSecond, Handlers handlers);
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  std::uint16_t port() const { return helper_.port(); }
  const std::string& token() const { return helper_.token(); }
  client::Take startTake(const client::TakeOptions& options) { return helper_.startTake(options); }
  // The helper finishes a running take and ends, even if the source stands still. Waits for
  // nothing.
  void stop();

 private:
  void feed(const std::stop_token& stop);

  const Handlers handlers_;
  const std::unique_ptr<tools::FrameSource> source_;
  const int framesPerSecond_;
  client::Helper helper_;
  std::jthread feeder_;
  std::jthread stopper_;
};

}  // namespace lumora::viewer
