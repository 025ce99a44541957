#pragma once

// The pure part of recording commands: what is well-formed, which times and paths are accepted,
// which events reach the parent.

#include <optional>
#include <string>

#include "base/json.h"
#include "record/recording_profile.h"

namespace lumora {

// The JSON object of a command with a "type" and a UUID as "id"; nothing when it is not that.
std::optional<Json> parseRecordingCommand(ByteView payload);

// 8-4-4-4-12 hexadecimal digits, in either case.
bool isUUID(const std::string& text);

// A capture time in uptime seconds, at most 30 s before `now` and 50 ms after it.
std::optional<double> recordingTimestamp(const Json& value, double now);

// An absolute ".mp4" path of at most 3000 bytes.
bool isRecordingDestination(const std::string& path);

// Events of a take that is only just asked for, or refused.
Json startingEvent(const std::string& id, const std::string& path, const RecordingProfile& profile);
Json rejectionEvent(const Json& command, const std::string& message);

// What the relay knows when a take's event arrives.
struct RelayState {
  const Json* status = nullptr;  // last accepted event, if any
  bool stopping = false;         // a stop is pending or the take is being finalised
};

// Whether `event` of the take `id` goes to the parent: a finished take's status is final, and
// progress never overwrites a stop under way.
bool relaysEvent(const RelayState& state, const std::string& id, const Json& event);

}  // namespace lumora
