#pragma once

#include <thread>

#include "tools/frame_source.h"
#include "tools/sound_source.h"

namespace lumora::viewer {

// A small camera application: starts a helper and feeds it sound, and pictures at a steady rate.
// The ids of the pictures are their capture times.
class Camera {
 public:
  // Called on threads of the camera.
  struct Handlers {
    std::function<void(const std::string& line)> event;    // of the helper, as JSON text
    std::function<void(std::uint64_t frames)> inputEnded;  // after so many frames
    std::function<void(bool hasHeard)> soundEnded;         // the pictures go on
    std::function<void(const client::Exited&)> ended;      // the helper; no `event` follows
  };
  // If `options` have sound, it comes from the microphone. Without a microphone, it is a beep for
  // each flash of the source. Throws what the constructor of client::Helper throws.
  Camera(const client::HelperOptions& options, std::unique_ptr<tools::FrameSource> source,
         std::unique_ptr<tools::Microphone> microphone, int framesPerSecond, Handlers handlers);
  ~Camera() { stop(); }

  client::Helper& helper() { return helper_; }
  // Stops source, microphone and helper. Returns at once.
  void stop();

 private:
  void feed(const std::stop_token& stop);
  void listen(const std::stop_token& stop);

  const Handlers handlers_;
  const std::unique_ptr<tools::FrameSource> source_;
  const std::unique_ptr<tools::Microphone> microphone_;
  std::optional<tools::Beeps> beeps_;
  const int framesPerSecond_;
  client::Helper helper_;
  std::jthread feeder_;
  std::jthread listener_;  // if there is a microphone
};

}  // namespace lumora::viewer
