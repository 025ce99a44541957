#pragma once

// The helper as our own programs and tests drive it: plain commands, events as they stand. An
// application has `client::Helper`.

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>

#include <lumora/helper.h>

#include "client/child_process.h"
#include "client/frame_slots.h"

namespace lumora::tools {

using Event = nlohmann::json;

// What FRAMES in the environment says, "memory" or "pipe"; `otherwise` without it. Throws
// std::runtime_error.
client::FrameTransport frameTransport(
    client::FrameTransport otherwise = client::FrameTransport::memory);

// Slots that a helper can see, if that is asked for. Throws std::runtime_error where there are
// none.
std::shared_ptr<client::FrameSlots> slotsFor(client::FrameTransport frames);

class HelperProcess : public client::ChildProcess {
 public:
  // Ignores SIGPIPE in the whole process unless it is handled, so that a helper that ended shows as
  // a failed write.
  // `slots` are for its pictures; null: they go through its pipe.
  explicit HelperProcess(client::LaunchOptions options,
                         std::shared_ptr<client::FrameSlots> slots = nullptr);

  // A picture that lies somewhere else. Waits for a slot, where there are slots; false when it no
  // longer reads, or frees none in 20 s.
  bool copyFrame(client::FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  // Blocks as the other writes do.
  bool writeCommand(const Event& command);
  // The same for a take: its command, with further keys.
  bool startTake(const std::string& id, const std::string& path, Event keys = Event::object());
  bool stopTake(const std::string& id, Event keys = Event::object());
  // The next event, or nothing when none came in time, the output ended or a line is not JSON.
  std::optional<Event> nextEvent(double timeoutSeconds);
  // The next event of this "type", skipping others.
  std::optional<Event> nextEvent(const std::string& type, double timeoutSeconds);
  // The next event of this "type" that is `wanted`. Throws std::runtime_error when the output ends
  // or a line is not JSON first, or none comes within 20 seconds.
  using Wanted = std::function<bool(const Event&)>;
  Event waitForEvent(
      const std::string& type, const Wanted& wanted = [](const Event&) { return true; });
  // The take's next event with this "state". Throws also when the take ends in another one.
  Event waitForTake(const std::string& id, const std::string& state);

 private:
  const std::shared_ptr<client::FrameSlots> slots_;
};

}  // namespace lumora::tools
