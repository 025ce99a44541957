#pragma once

// What a page may say to the viewer: one JSON object a message. Pure.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace lumora::viewer {

struct Shown {
  std::uint64_t frameID;  // this one, and all before it
};
struct Ping {
  std::uint64_t sent;  // in the page's own microseconds
};
struct Restarted {};  // its decoder
struct Visible {
  bool visible;
};
struct StartTake {
  std::string resolution;  // a profile's name
  int targetFPS;
  std::string folder;
  bool steady;
};
struct StopTake {};

using PageMessage = std::variant<Shown, Ping, Restarted, Visible, StartTake, StopTake>;

constexpr std::size_t maximumMessageBytes = 8192;

// Nothing for a message that no page of ours sends.
std::optional<PageMessage> parsePageMessage(std::string_view text);

}  // namespace lumora::viewer
