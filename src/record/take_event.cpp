#include "record/take_event.h"

#include "app/event.h"
#include "base/limits.h"
#include "base/text.h"

namespace lumora {
namespace {

const char* textOf(TakeState state) {
  // In the order of the enumerators.
  constexpr const char* texts[] = {"starting", "recording", "finishing", "saved", "failed"};
  return texts[static_cast<std::size_t>(state)];
}

}  // namespace

TakeEvent makeTakeEvent(const TakeReport& report) {
  // In the "starting" event the duration is an integer.
  const Json duration = report.state == TakeState::starting ? Json(0) : Json(report.duration);
  TakeEvent event{report.state,
                  {{"type", "recording"},
                   {"id", report.id},
                   {"state", textOf(report.state)},
                   {"path", report.path},
                   {"frames", report.frames},
                   {"dropped", report.dropped},
                   {"duration", duration},
                   {"target_fps", report.targetFPS},
                   {"recent_fps", report.recentFPS},
                   {"throttled", report.throttled},
                   {"width", report.width},
                   {"height", report.height},
                   {"error", firstCharacters(report.error, maximumMessageCharacters)}}};
  const Json bare = event.json;
  event.json.update(report.more);
  if (!eventLine(event.json)) event.json = bare;  // with `more` it is too long, or not UTF-8
  return event;
}

TakeEvent failedEvent(const TakeEvent& last, const std::string& error) {
  TakeEvent event{TakeState::failed, last.json};
  event.json["state"] = textOf(event.state);
  event.json["duration"] = 0.0;
  event.json["error"] = firstCharacters(error, maximumMessageCharacters);
  event.json.erase("seconds_left");
  return event;
}

Json rejectionEvent(const Json& command, const std::string& message) {
  const std::string* path = findString(command, "path");
  return {{"type", "recording"},
          {"id", command["id"]},
          {"state", textOf(TakeState::failed)},
          {"path", path == nullptr ? "" : *path},
          {"frames", 0},
          {"dropped", 0},
          {"duration", 0},
          {"width", 0},
          {"height", 0},
          {"error", message}};
}

bool relaysEvent(const TakeEvent& last, bool stopping, const TakeEvent& next) {
  if (isLast(last.state)) return false;
  return next.state != TakeState::recording || !(stopping || last.state == TakeState::finishing);
}

}  // namespace lumora
