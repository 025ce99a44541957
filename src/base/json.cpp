#include "base/json.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

namespace lumora {
namespace {

Json parse(std::string_view text) { return Json::parse(text, nullptr, /*allow_exceptions=*/false); }

// Whether `token` is a JSON number that a double can't hold.
bool isTooLarge(const std::string& token) {
  char* end = nullptr;
  if (!std::isinf(std::strtod(token.c_str(), &end)) || *end != '\0') return false;
  try {
    [[maybe_unused]] const Json number = Json::parse(token);
  } catch (const Json::out_of_range&) {
    return true;
  } catch (const Json::exception&) {  // strtod also reads +1e999 and 01e999, which JSON forbids
  }
  return false;
}

// Replaces numbers that a double can't hold with 1e308 or -1e308. Strings stay as they are.
std::string withLimitedNumbers(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    // A token is a number or a string, or else a single character.
    std::size_t end = std::max(text.find_first_not_of("+-.0123456789Ee", i), i + 1);
    if (text[i] == '"') {
      while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
      ++end;
    }
    const std::string token(text.substr(i, end - i));
    result += !isTooLarge(token) ? token : token.front() == '-' ? "-1e308" : "1e308";
    i += token.size();
  }
  return result;
}

}  // namespace

std::optional<Json> parseJson(ByteView bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (text.find('\0') != std::string_view::npos) return std::nullopt;  // the parser would end there
  Json value = parse(text);
  // JSON's numbers have no limit, but the parser refuses those that a double can't hold.
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
