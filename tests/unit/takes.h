#pragma once

#include "tests/unit/probe.h"

namespace lumora {

// Takes of the service on fakes: commands, one camera frame at a time, the events they bring.
inline const std::string takeID = "6f9619ff-8b86-d011-b42d-00cf4fc964ff";
inline const std::string takePath = "/takes/a.mp4";

struct Takes : ServiceTest {
  std::vector<Json> send(const char* type, Json command) {
    command.emplace("type", type);
    command.emplace("id", takeID);
    probe.process->takeEvents();
    probe.command(command);
    return probe.process->takeEvents();
  }
  std::vector<Json> sendStart(Json extra = Json::object()) {
    extra.emplace("path", takePath);
    return send("record_start", extra);
  }
  void start(const Json& extra = Json::object()) {
    const auto events = sendStart(extra);
    ASSERT_EQ(events.size(), 1u);
    ASSERT_EQ(events[0]["state"], "starting") << events[0];
  }
  std::vector<Json> stop(const Json& extra = Json::object()) { return send("record_stop", extra); }
  // A camera frame at uptime `at`, which is not encoded yet.
  void feed(double at, int width = 640, int height = 360) {
    probe.clock->now = at;
    probe.feed(++lastID, width, height);
  }
  // The same, encoded as a key frame or not. Whether it was submitted.
  bool frame(double at, bool keyframe = false) {
    feed(at);
    if (probe.encoders->sessions.empty() || probe.lastSession().pending.empty()) return false;
    probe.answer(keyframe ? keySample() : deltaSample());
    return true;
  }
  void startWithFrame() {
    start();
    frame(1001.0, true);
  }
  FakeWriter& writer() { return *probe.movies->writers.back(); }
  // The events with this "state" since the last look.
  std::vector<Json> events(const std::string& state) {
    probe.run();
    auto all = probe.process->takeEvents("recording");
    std::erase_if(all, [&](const Json& event) { return event["state"] != state; });
    return all;
  }
  std::string failure() {
    const auto failed = events("failed");
    return failed.empty() ? "" : failed.front()["error"].get<std::string>();
  }
  // Stops the take and lets the disk finish; the outcome.
  Json finish(const Json& extra = Json::object()) {
    stop(extra);
    probe.run();
    writer().complete(WriterStatus::completed);
    const auto saved = events("saved");
    return saved.empty() ? Json() : saved.front();
  }
  std::uint64_t lastID = 0;
};

}  // namespace lumora
