#pragma once

// The helper as our own programs and tests drive it: plain commands, events as they stand. An
// application has `client::Helper`.

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>

#include "client/child_process.h"

namespace lumora::tools {

using Event = nlohmann::json;

// Whether pictures go through memory that is shared with the helper: what FRAMES in the environment
// says, "memory" or "pipe"; `otherwise` without it. Throws std::runtime_error.
bool sharesFrames(bool otherwise = true);

class HelperProcess : public client::ChildProcess {
 public:
  // Ignores SIGPIPE in the whole process unless it is handled, so that a helper that ended shows as
  // a failed write.
  explicit HelperProcess(const client::LaunchOptions& options);

  // Through the memory that is shared with it, if there is one: then it waits for a slot; false
  // also when none becomes free in 20 s.
  bool writeFrame(client::FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  // Blocks as the other writes do.
  bool writeCommand(const Event& command);
  // The next event, or nothing when none came in time, the output ended or a line is not JSON.
  std::optional<Event> nextEvent(double timeoutSeconds);
  // The next event of this "type", skipping others.
  std::optional<Event> nextEvent(const std::string& type, double timeoutSeconds);

 private:
  const std::shared_ptr<client::FrameMemory> memory_;
};

}  // namespace lumora::tools
