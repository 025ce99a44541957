#include "tools/viewer/page_messages.h"

#include <nlohmann/json.hpp>

namespace lumora::viewer {
namespace {

using Json = nlohmann::json;

// The value of `key` if it has this type; integers only as integers, whole and not below 0.
template <typename Value>
std::optional<Value> get(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) return std::nullopt;
  if constexpr (std::is_same_v<Value, std::uint64_t>) {
    if (!found->is_number_unsigned()) return std::nullopt;
  } else if constexpr (std::is_same_v<Value, bool>) {
    if (!found->is_boolean()) return std::nullopt;
  } else if (!found->is_string()) {
    return std::nullopt;
  }
  return found->get<Value>();
}

std::optional<PageMessage> startTake(const Json& object) {
  const auto resolution = get<std::string>(object, "resolution");
  const auto rate = get<std::uint64_t>(object, "target_fps");
  const auto folder = get<std::string>(object, "folder");
  if (!resolution || !rate || *rate > 1000 || !folder) return std::nullopt;
  const bool steady = get<std::string>(object, "cadence") == "steady";
  return StartTake{*resolution, static_cast<int>(*rate), *folder, steady};
}

}  // namespace

std::optional<PageMessage> parsePageMessage(std::string_view text) {
  if (text.size() > maximumMessageBytes) return std::nullopt;
  const Json object = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!object.is_object()) return std::nullopt;
  const auto type = get<std::string>(object, "type");
  if (type == "shown") {
    if (const auto id = get<std::uint64_t>(object, "frame_id")) return Shown{*id};
  } else if (type == "ping") {
    if (const auto sent = get<std::uint64_t>(object, "sent")) return Ping{*sent};
  } else if (type == "visible") {
    if (const auto visible = get<bool>(object, "visible")) return Visible{*visible};
  } else if (type == "restart") {
    return Restarted{};
  } else if (type == "start") {
    return startTake(object);
  } else if (type == "stop") {
    return StopTake{};
  }
  return std::nullopt;
}

}  // namespace lumora::viewer
