#include "record/recording_command.h"

#include <cctype>
#include <cmath>

namespace lumora {
namespace {

constexpr double maximumAge = 30.0;   // seconds
constexpr double maximumLead = 0.05;  // seconds
constexpr std::size_t maximumPathBytes = 3000;

std::string stateOf(const Json& event) {
  const std::string* state = findString(event, "state");
  return state == nullptr ? "" : *state;
}

}  // namespace

std::optional<Json> parseRecordingCommand(ByteView payload) {
  auto command = parseJson(payload);
  if (!command || !command->is_object()) return std::nullopt;
  const std::string* id = findString(*command, "id");
  if (findString(*command, "type") == nullptr || id == nullptr || !isUUID(*id)) {
    return std::nullopt;
  }
  return command;
}

bool isUUID(const std::string& text) {
  constexpr std::size_t length = 36;
  if (text.size() != length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const auto character = static_cast<unsigned char>(text[i]);
    if (dash ? character != '-' : std::isxdigit(character) == 0) return false;
  }
  return true;
}

std::optional<double> recordingTimestamp(const Json& value, double now) {
  if (!value.is_number()) return std::nullopt;
  const double time = value.get<double>();
  const bool accepted =
      std::isfinite(time) && time >= 0 && time <= now + maximumLead && now - time <= maximumAge;
  return accepted ? std::optional(time) : std::nullopt;
}

bool isRecordingDestination(const std::string& path) {
  return path.starts_with('/') && path.size() <= maximumPathBytes && path.ends_with(".mp4") &&
         path.find('\0') == std::string::npos;
}

Json startingEvent(const std::string& id, const std::string& path,
                   const RecordingProfile& profile) {
  return {{"type", "recording"},
          {"id", id},
          {"state", "starting"},
          {"path", path},
          {"frames", 0},
          {"dropped", 0},
          {"duration", 0},
          {"width", 0},
          {"height", 0},
          {"error", ""},
          {"target_fps", profile.targetFPS},
          {"recent_fps", 0.0},
          {"throttled", 0}};
}

Json rejectionEvent(const Json& command, const std::string& message) {
  const std::string* path = findString(command, "path");
  return {{"type", "recording"}, {"id", command["id"]},
          {"state", "failed"},   {"path", path == nullptr ? "" : *path},
          {"frames", 0},         {"dropped", 0},
          {"duration", 0},       {"width", 0},
          {"height", 0},         {"error", message}};
}

bool relaysEvent(const RelayState& state, const std::string& id, const Json& event) {
  if (state.status == nullptr) return false;
  const std::string* current = findString(*state.status, "id");
  if (current == nullptr || *current != id) return false;
  const std::string before = stateOf(*state.status);
  if (before == "saved" || before == "failed") return false;
  return stateOf(event) != "recording" || !(state.stopping || before == "finishing");
}

}  // namespace lumora
