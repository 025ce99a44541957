#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/frame_source.h"
#include "tools/helper_process.h"

namespace lumora::viewer {

// A camera application in small: starts the helper and feeds it pictures at a steady rate, numbered
// by the time of their capture.
class Camera {
 public:
  // Called on threads of the camera's own.
  struct Handlers {
    std::function<void(const std::string& line)> event;    // of the helper, as it stands
    std::function<void(std::uint64_t frames)> inputEnded;  // the source, after so many
    std::function<void(client::ExitStatus)> ended;         // the helper; the last call
  };
  // Throws std::system_error when the helper can't be started.
  Camera(const client::LaunchOptions& launch, std::unique_ptr<tools::FrameSource> source,
         int framesPerSecond, Handlers handlers);
  // Kills a helper that still runs.
  ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  // Any thread. Goes out before the next picture.
  void command(const tools::Event& command);
  // Any thread. The helper finishes a running take and ends.
  void stop();

 private:
  void feed(const std::stop_token& stop);
  void writeCommands();
  void readEvents();

  tools::HelperProcess helper_;
  const std::unique_ptr<tools::FrameSource> source_;
  const int framesPerSecond_;
  const Handlers handlers_;
  std::atomic<bool> ended_ = false;
  std::mutex mutex_;  // guards the next
  std::vector<tools::Event> commands_;
  std::jthread events_;
  std::jthread feeder_;
};

}  // namespace lumora::viewer
