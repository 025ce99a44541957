#include "app/event.h"

#include "base/limits.h"
#include "base/text.h"

namespace lumora {

std::optional<std::string> eventLine(const Json& event) {
  std::string text;
  try {
    text = event.dump();
  } catch (const Json::exception&) {  // not UTF-8
    return std::nullopt;
  }
  std::string line;
  line.reserve(text.size() + 32);
  for (const char character : text) {
    // JSON has slashes in strings only, where they may be escaped.
    if (character == '/') line.push_back('\\');
    line.push_back(character);
  }
  if (line.size() >= maximumLineBytes) return std::nullopt;
  line.push_back('\n');
  return line;
}

Json errorEvent(const std::string& message) {
  return {{"type", "error"}, {"message", firstCharacters(message, maximumMessageCharacters)}};
}

}  // namespace lumora
