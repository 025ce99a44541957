#include "tools/viewer/page_messages.h"

#include <nlohmann/json.hpp>

namespace lumora::viewer {
namespace {

using Json = nlohmann::json;

// The value of `key`. Throws Json::exception if the key is missing or its value has another type
// than `Value`. For std::uint64_t the value must be a whole number, 0 or more.
template <typename Value>
const Value& get(const Json& object, const char* key) {
  return object.at(key).get_ref<const Value&>();
}

std::optional<PageMessage> startTake(const Json& object) {
  const auto rate = get<std::uint64_t>(object, "target_fps");
  if (rate > 1000) return std::nullopt;
  return StartTake{get<std::string>(object, "resolution"), static_cast<int>(rate),
                   get<std::string>(object, "folder"), object.value("cadence", "") == "steady",
                   object.value("sound", false)};
}

}  // namespace

std::optional<PageMessage> parsePageMessage(std::string_view text) try {
  const Json object = Json::parse(text);
  const auto& type = get<std::string>(object, "type");
  if (type == "shown") return Shown{get<std::uint64_t>(object, "frame_id")};
  if (type == "ping") return Ping{get<std::uint64_t>(object, "sent")};
  if (type == "restart") return Restarted{};
  if (type == "visible") return Visible{get<bool>(object, "visible")};
  if (type == "start") return startTake(object);
  if (type == "stop") return StopTake{};
  if (type == "recover") return RecoverTakes{};
  return std::nullopt;
} catch (const Json::exception&) {
  return std::nullopt;
}

}  // namespace lumora::viewer
