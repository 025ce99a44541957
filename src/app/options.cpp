#include "app/options.h"

#include <algorithm>
#include <charconv>
#include <concepts>

#include "base/limits.h"

namespace lumora {
namespace {

constexpr std::size_t maximumHostBytes = 253;
constexpr std::size_t minimumTokenBytes = 16;
constexpr std::int64_t maximumPreviewWidth = 640;
constexpr std::int64_t maximumPreviewHeight = 360;

// Optional sign, decimal digits, nothing else. `from_chars` takes a minus for signed types only
// and never a plus, so both are looked at here.
template <std::integral Integer>
bool parseInteger(const std::string& text, Integer& value) {
  const bool negative = text.starts_with('-');
  const std::size_t digits = negative || text.starts_with('+') ? 1 : 0;
  if (text.size() == digits || text[digits] < '0' || text[digits] > '9') return false;
  const char* first = text.data() + (std::signed_integral<Integer> && negative ? 0 : digits);
  const char* last = text.data() + text.size();
  const auto [end, error] = std::from_chars(first, last, value);
  if (error != std::errc{} || end != last) return false;
  return std::signed_integral<Integer> || !negative || value == 0;
}

bool readEnvironmentSize(const Environment& environment, Configuration& configuration) {
  const auto width = environment.find("TAVO_PREVIEW_WIDTH");
  const auto height = environment.find("TAVO_PREVIEW_HEIGHT");
  if (width == environment.end() && height == environment.end()) return true;
  if (width == environment.end() || height == environment.end()) return false;
  configuration.exactPreviewDimensions = true;
  return parseInteger(width->second, configuration.previewWidth) &&
         parseInteger(height->second, configuration.previewHeight);
}

bool readFrameMemory(const Environment& environment, Configuration& configuration) {
  const auto descriptor = environment.find("TAVO_FRAME_MEMORY");
  if (descriptor == environment.end()) return true;
  return parseInteger(descriptor->second, configuration.frameMemoryDescriptor.emplace());
}

bool applyOption(const std::string& name, const std::string& value, Configuration& configuration) {
  if (name == "--host") {
    configuration.host = value;
    return true;
  }
  if (name == "--port") return parseInteger(value, configuration.port);
  if (name == "--preview-width") {
    configuration.exactPreviewDimensions = true;
    return parseInteger(value, configuration.previewWidth);
  }
  if (name == "--preview-height") {
    configuration.exactPreviewDimensions = true;
    return parseInteger(value, configuration.previewHeight);
  }
  return false;
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
  const auto token = environment.find("TAVO_VIDEO_TOKEN");
  if (token == environment.end() || !isValidToken(token->second)) return std::nullopt;
  configuration.token = token->second;
  return configuration;
}

}  // namespace lumora
