#include "base/json.h"

namespace lumora {

std::optional<Json> parseJson(ByteView text) {
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
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
