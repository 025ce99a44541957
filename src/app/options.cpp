#include "app/options.h"

#include <algorithm>
#include <charconv>
#include <concepts>
#include <string_view>
#include <utility>

#include "base/limits.h"

namespace lumora {
namespace {

constexpr std::size_t maximumHostBytes = 253;
constexpr std::size_t minimumTokenBytes = 16;
constexpr std::int64_t maximumPreviewWidth = 640;
constexpr std::int64_t maximumPreviewHeight = 360;

const std::string* findVariable(const Environment& environment, const char* name) {
  const auto found = environment.find(name);
  return found == environment.end() ? nullptr : &found->second;
}

// Accepts an optional sign and decimal digits, nothing else.
template <std::integral Integer>
bool parseInteger(std::string_view text, Integer& value) {
  // `from_chars` takes a minus, but no plus.
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  const char* last = text.data() + text.size();
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), last, number);
  if (error != std::errc{} || end != last || !std::in_range<Integer>(number)) return false;
  value = static_cast<Integer>(number);
  return true;
}

bool readEnvironmentSize(const Environment& environment, Configuration& configuration) {
  const std::string* width = findVariable(environment, "TAVO_PREVIEW_WIDTH");
  const std::string* height = findVariable(environment, "TAVO_PREVIEW_HEIGHT");
  if (width == nullptr && height == nullptr) return true;
  if (width == nullptr || height == nullptr) return false;
  configuration.exactPreviewDimensions = true;
  return parseInteger(*width, configuration.previewWidth) &&
         parseInteger(*height, configuration.previewHeight);
}

bool readFrameMemory(const Environment& environment, Configuration& configuration) {
  const std::string* descriptor = findVariable(environment, "TAVO_FRAME_MEMORY");
  return descriptor == nullptr ||
         parseInteger(*descriptor, configuration.frameMemoryDescriptor.emplace());
}

bool readFrameFormat(const Environment& environment, Configuration& configuration) {
  const std::string* words = findVariable(environment, "TAVO_FRAME_FORMAT");
  if (words == nullptr) return true;
  const auto format = parseFrameFormat(*words);
  if (format) configuration.frameFormat = *format;
  return format.has_value();
}

bool readSoundFormat(const Environment& environment, Configuration& configuration) {
  const std::string* text = findVariable(environment, "TAVO_SOUND");
  if (text != nullptr) configuration.sound = parseSoundFormat(*text);
  return text == nullptr || configuration.sound;
}

bool applyOption(const std::string& name, const std::string& value, Configuration& configuration) {
  if (name == "--host") {
    configuration.host = value;
    return true;
  }
  if (name == "--port") return parseInteger(value, configuration.port);
  const bool isWidth = name == "--preview-width";
  if (!isWidth && name != "--preview-height") return false;
  configuration.exactPreviewDimensions = true;
  return parseInteger(value, isWidth ? configuration.previewWidth : configuration.previewHeight);
}

bool isValidSize(std::int64_t size, std::int64_t maximum) {
  return size >= 2 && size <= maximum && size % 2 == 0;
}

bool isTokenCharacter(char character) {
  return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
         (character >= '0' && character <= '9') || character == '_' || character == '-';
}

bool isValidToken(const std::string& token) {
  return token.size() >= minimumTokenBytes && token.size() <= maximumTokenBytes &&
         std::ranges::all_of(token, isTokenCharacter);
}

}  // namespace

std::optional<Configuration> options(const std::vector<std::string>& arguments,
                                     const Environment& environment) {
  Configuration configuration;
  if (!readEnvironmentSize(environment, configuration)) return std::nullopt;
  if (!readFrameMemory(environment, configuration)) return std::nullopt;
  if (!readFrameFormat(environment, configuration)) return std::nullopt;
  if (!readSoundFormat(environment, configuration)) return std::nullopt;
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    if (i + 1 == arguments.size()) return std::nullopt;
    if (!applyOption(arguments[i], arguments[i + 1], configuration)) return std::nullopt;
  }
  if (configuration.host.empty() || configuration.host.size() > maximumHostBytes) {
    return std::nullopt;
  }
  if (!isValidSize(configuration.previewWidth, maximumPreviewWidth) ||
      !isValidSize(configuration.previewHeight, maximumPreviewHeight)) {
    return std::nullopt;
  }
  const std::string* token = findVariable(environment, "TAVO_VIDEO_TOKEN");
  if (token == nullptr || !isValidToken(*token)) return std::nullopt;
  configuration.token = *token;
  if (const auto* choice = findVariable(environment, "TAVO_H264_ENCODER")) {
    configuration.h264Encoder = *choice;
  }
  return configuration;
}

}  // namespace lumora
