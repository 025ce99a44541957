#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "base/bytes.h"

namespace lumora {

using Json = nlohmann::json;

// Parses UTF-8 JSON text. Empty if the text is not valid JSON. Numbers beyond a double's range
// count as 1e308 or -1e308. Throws only std::bad_alloc.
std::optional<Json> parseJson(ByteView text);

// The value under `key`; null if there is none, or if `object` is not an object.
const Json* findValue(const Json& object, const char* key);

// The string under `key`; null if `findValue` returns null, or if the value is not a string.
const std::string* findString(const Json& object, const char* key);

}  // namespace lumora
