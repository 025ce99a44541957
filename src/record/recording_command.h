#pragma once

// The pure part of recording commands: what is well-formed, which times and paths are accepted.

#include <optional>
#include <string>

#include "base/json.h"
#include "record/recording_cadence.h"

namespace lumora {

// The JSON object of a command with a "type" and a UUID as "id"; nothing when it is not that.
std::optional<Json> parseRecordingCommand(ByteView payload);

// 8-4-4-4-12 hexadecimal digits, in either case.
bool isUUID(const std::string& text);

// A capture time in uptime seconds, at most 30 s before `now` and 50 ms after it.
std::optional<double> recordingTimestamp(const Json& value, double now);

// The cadence that a "record_start" asks for; whatever is not known is the usual one.
CadenceRule requestedCadence(const Json& command);

// An absolute ".mp4" path of at most 3000 bytes.
bool isRecordingDestination(const std::string& path);

}  // namespace lumora
