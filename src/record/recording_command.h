#pragma once

// The rules of recording commands: which are well-formed, which times and paths are accepted. Pure.

#include <optional>
#include <string>

#include "base/json.h"

namespace lumora {

// A command: a JSON object with a text "type" and a UUID "id". Empty for any other payload.
std::optional<Json> parseRecordingCommand(ByteView payload);

// A capture time in uptime seconds: empty unless it lies from 30 s before to 50 ms after `now`.
std::optional<double> recordingTimestamp(const Json& value, double now);

// Whether this is an absolute ".mp4" path of at most 3000 bytes.
bool isRecordingDestination(const std::string& path);

}  // namespace lumora
