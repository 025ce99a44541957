#pragma once

// The "recording" events of takes. Pure.

#include <cstdint>
#include <string>

#include "base/json.h"

namespace lumora {

enum class TakeState { starting, recording, finishing, saved, failed };

// An event of one take: what goes to the parent, and beside it what decisions are made by.
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
};

// The thirteen keys of every event of a take that was accepted.
TakeEvent makeTakeEvent(const TakeReport& report);

// For a recorder that can't be asked, or is not waited for: that the take of the event `last` has
// failed for `error`, with the figures it told last.
TakeEvent failedEvent(const TakeEvent& last, const std::string& error);

// The ten keys of a "record_start" that was refused.
Json rejectionEvent(const Json& command, const std::string& message);

// Whether `next` goes to the parent. `last` is the last event of the take that did, `stopping`
// whether a stop is pending or the take is being finalised: a finished take's status is final, and
// progress never overwrites a stop under way.
bool relaysEvent(const TakeEvent& last, bool stopping, const TakeEvent& next);

}  // namespace lumora
