#pragma once

// The helper, or another program, as a plain child process: raw records go in, events come out as
// JSON. Tests use it for what `client::Helper` never does; applications use that class.

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>

#include <lumora/helper.h>

#include "client/child_process.h"
#include "client/frame_slots.h"

namespace lumora::tests {

using Event = nlohmann::json;

// Slots that a helper can share; null for the pipe. Throws std::runtime_error where memory can't be
// shared.
std::shared_ptr<client::FrameSlots> slotsFor(client::FrameTransport frames);

class HelperProcess : public client::ChildProcess {
 public:
  // Ignores SIGPIPE in the whole process unless it is handled, so that a write to a helper that has
  // ended fails. Without `slots`, frames go through the pipe.
  explicit HelperProcess(client::LaunchOptions options,
                         std::shared_ptr<client::FrameSlots> slots = nullptr);

  // Writes a copy of a frame. Waits for a slot, where there are slots; false when none is free
  // within 20 s, or the helper has closed its input.
  bool copyFrame(client::FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  // Writes the command that starts or stops a take, with further keys. Blocks as other writes do.
  bool startTake(const std::string& id, const std::string& path, Event keys = Event::object());
  bool stopTake(const std::string& id, Event keys = Event::object());
  // The next event; empty when none came in time, the output has ended, or a line is not JSON.
  std::optional<Event> nextEvent(double timeoutSeconds);
  // The next event of this "type" that is `wanted`. Throws std::runtime_error when the output ends
  // or a line is not JSON first, or none comes within 20 seconds.
  using Wanted = std::function<bool(const Event&)>;
  Event waitForEvent(
      const std::string& type, const Wanted& wanted = [](const Event&) { return true; });
  // The take's next event with this "state". Throws also when the take ends in another one.
  Event waitForTake(const std::string& id, const std::string& state);

 private:
  bool writeCommand(const Event& command);

  const std::shared_ptr<client::FrameSlots> slots_;
};

}  // namespace lumora::tests
