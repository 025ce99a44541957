#pragma once

// The "recording" events of takes. Pure.

#include <cstdint>
#include <string>

#include "base/json.h"

namespace lumora {

enum class TakeState { starting, recording, finishing, saved, failed };

// Whether an event of this state is the last one of its take.
constexpr bool isLast(TakeState state) {
  return state == TakeState::saved || state == TakeState::failed;
}

// An event of one take. The parent gets `json`. `state` repeats the "state" in it for our own
// decisions.
struct TakeEvent {
  TakeState state;
  Json json;
};

struct TakeReport {
  std::string id;
  TakeState state;
  std::string path;
  int targetFPS;
  double duration = 0;   // seconds
  double recentFPS = 0;  // samples written in the last second
  std::uint64_t frames = 0;
  std::uint64_t dropped = 0;
  std::uint64_t throttled = 0;
  int width = 0;   // pixels
  int height = 0;  // pixels
  std::string error = {};
  Json more = Json::object();  // keys the parent asked for; left out if the line gets too long
};

// The event of a take that was accepted. It has thirteen keys, and those in `more` if they fit.
TakeEvent makeTakeEvent(const TakeReport& report);

// The "failed" event of a take whose recorder can't make this event itself, or not in time. Its
// duration is 0, its other figures are those of `last`, the take's latest event. It leaves out the
// "seconds_left" that `last` may have.
TakeEvent failedEvent(const TakeEvent& last, const std::string& error);

// The "failed" event that answers a refused "record_start". It has ten keys.
Json rejectionEvent(const Json& command, const std::string& message);

// Whether the event `next` is emitted. `last` is the take's latest emitted event. `stopping` says
// whether a stop is pending or under way. Nothing follows a "saved" or "failed" event, and no
// progress is reported while a take stops.
bool relaysEvent(const TakeEvent& last, bool stopping, const TakeEvent& next);

}  // namespace lumora
