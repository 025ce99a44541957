#include "base/json.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

namespace lumora {

namespace {

Json parse(std::string_view text) { return Json::parse(text, nullptr, /*allow_exceptions=*/false); }

// `number` with its runs of digits cut to two: as well-formed as before.
std::string shortened(std::string_view number) {
  std::string text;
  int run = 0;
  for (const char character : number) {
    run = character >= '0' && character <= '9' ? run + 1 : 0;
    if (run <= 2) text += character;
  }
  return text;
}

// A number too large for a double becomes one that is just not.
std::string limited(std::string_view number) {
  std::string text(number);
  const bool tooLarge = std::isinf(std::strtod(text.c_str(), nullptr));
  if (!tooLarge || !Json::accept(shortened(number))) return text;
  return number.front() == '-' ? "-1e308" : "1e308";
}

std::string withLimitedNumbers(std::string_view text) {
  std::string result;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size();) {
    const std::string_view rest = text.substr(i);
    const std::size_t number = quoted ? 0 : rest.find_first_not_of("+-.0123456789Ee");
    if (number > 0) {
      result += limited(rest.substr(0, number));
      i += std::min(number, rest.size());
      continue;
    }
    if (rest.front() == '"') quoted = !quoted;
    const std::size_t length = quoted && rest.front() == '\\' ? 2 : 1;
    result += rest.substr(0, length);
    i += length;
  }
  return result;
}

}  // namespace

std::optional<Json> parseJson(ByteView bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.find('\0') != std::string_view::npos) return std::nullopt;  // to the parser, an end
  Json value = parse(text);
  // JSON's numbers have no limit; the parser takes those that a double can't hold for an error.
  if (value.is_discarded()) value = parse(withLimitedNumbers(text));
  if (value.is_discarded()) return std::nullopt;
  return value;
}

const Json* findValue(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

const std::string* findString(const Json& object, const char* key) {
  const Json* value = findValue(object, key);
  return value == nullptr ? nullptr : value->get_ptr<const std::string*>();
}

}  // namespace lumora
