#include "record/recording_command.h"

#include "base/limits.h"
#include "base/movie_names.h"

namespace lumora {
namespace {

constexpr std::size_t maximumPathBytes = 3000;

}  // namespace

std::optional<Json> parseRecordingCommand(ByteView payload) {
  auto command = parseJson(payload);
  if (!command || findString(*command, "type") == nullptr) return std::nullopt;
  const std::string* id = findString(*command, "id");
  if (id == nullptr || !isUUID(*id)) return std::nullopt;
  return command;
}

std::optional<double> recordingTimestamp(const Json& value, double now) {
  if (!value.is_number()) return std::nullopt;
  const double time = value.get<double>();
  const bool accepted = time >= 0 && time <= now + maximumLead && now - time <= maximumAge;
  return accepted ? std::optional(time) : std::nullopt;
}

bool isRecordingDestination(const std::string& path) {
  return path.starts_with('/') && path.size() <= maximumPathBytes && path.ends_with(".mp4") &&
         path.find('\0') == std::string::npos;
}

}  // namespace lumora
