#pragma once

// The text of the events that go to the parent. Pure.

#include <optional>
#include <string>

#include "base/json.h"

namespace lumora {

// One line with its line feed: compact JSON, sorted keys, "/" escaped. Empty when the event has
// text that is not UTF-8, or when the line would be longer than `maximumLineBytes`.
std::optional<std::string> eventLine(const Json& event);

// The "error" event: `message` cut to its first 240 characters.
Json errorEvent(const std::string& message);

}  // namespace lumora
