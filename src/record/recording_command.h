#pragma once

// The rules of recording commands: which are well-formed, which times and paths are accepted. Pure.

#include <optional>
#include <string>

#include "base/json.h"

namespace lumora {

// A command is a JSON object with a string "type" and a UUID "id". Empty for any other payload.
std::optional<Json> parseRecordingCommand(ByteView payload);

// The capture time that `value` states, in uptime seconds. Empty if `value` is no number, negative,
// more than 30 s before `now`, or more than 50 ms after it.
std::optional<double> recordingTimestamp(const Json& value, double now);

// Whether this is an absolute ".mp4" path of at most 3000 bytes, without a NUL.
bool isRecordingDestination(const std::string& path);

}  // namespace lumora
