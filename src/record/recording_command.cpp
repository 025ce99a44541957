#include "record/recording_command.h"

#include <cctype>

namespace lumora {
namespace {

constexpr double maximumAge = 30.0;   // seconds
constexpr double maximumLead = 0.05;  // seconds
constexpr std::size_t maximumPathBytes = 3000;

// 8-4-4-4-12 hexadecimal digits, in either case.
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
