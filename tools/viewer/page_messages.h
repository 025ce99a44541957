#pragma once

// The messages from the page to the viewer. Each is one JSON object. Pure.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace lumora::viewer {

struct Shown {
  std::uint64_t frameID;  // the page is done with this frame and all before it
};
struct Ping {
  std::uint64_t sent;  // microseconds of the page's own clock
};
struct Restarted {};  // the page's decoder has failed, and needs a key frame
struct Visible {
  bool visible;
};
struct StartTake {
  std::string resolution;  // "640x360", ...
  int targetFPS;
  std::string folder;
  bool steady;
  bool sound = false;
};
struct StopTake {};
struct RecoverTakes {};  // those that were interrupted

using PageMessage =
    std::variant<Shown, Ping, Restarted, Visible, StartTake, StopTake, RecoverTakes>;

// Nothing for a message that our page does not send.
std::optional<PageMessage> parsePageMessage(std::string_view text);

}  // namespace lumora::viewer
