// Rules of takes, each by itself: commands, cadence, the movie's end, events.

#include "record/movie_timing.h"
#include "record/recording_cadence.h"
#include "record/take_event.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

TEST(Commands, EndTheRunWhenMalformedOrUnknown) {
  const std::string id = R"(,"id":"6f9619ff-8b86-d011-b42d-00cf4fc964f)";  // lacks a digit
  const std::string start = R"({"type":"record_start")", pause = R"({"type":"pause")" + id + "f\"}";
  for (const std::string& text : std::initializer_list<std::string>{
           "x", "[]", start + "}", start + id + "\"}", start + id + "g\"}",
           R"({"type":1)" + id + "f\"}", pause}) {
    VideoEncoderProbe fresh;
    fresh.commandText(text);
    const std::string what = text == pause ? "unknown" : "invalid";
    EXPECT_EQ(fresh.error(), what + " recording command");
    EXPECT_EQ(fresh.process->exitCodes, std::vector<int>{1});
  }
}

TEST(ParseJson, RefusesNulCharactersAndLimitsLargeNumbers) {
  const auto parse = [](const std::string& text) {
    return parseJson(Bytes(text.begin(), text.end()));
  };
  for (const std::string& text : std::initializer_list<std::string>{
           R"({"a":1e999,"b":"-1e999\\"})", R"({"a":)" + std::string(400, '9') + "}",
           R"({"b":"\"","a":1.5E+999})", R"({"a": 1e0999 })"})
    EXPECT_EQ(parse(text).value_or(Json::object())["a"], 1e308) << text;
  EXPECT_EQ(parse(R"([-1e999,1e-999,"1e999"])"), Json::parse(R"([-1e308,0.0,"1e999"])"));
  for (const std::string& text : std::initializer_list<std::string>{
           std::string("{}\0", 3), std::string("{}\0garbage", 10), "\"1e999", R"({"a":01e999})",
           R"({"a":+1e999})", R"({"a":1.e999})", R"({"a":1e999.5})", R"({"a":1e999e1})",
           R"({"a":1e999)"})
    EXPECT_FALSE(parse(text)) << text;
}

// A camera delivers 600 frames. Of each three, the first is late by `jitter` seconds, the third is
// early by as much. The grid begins at the first frame. Returns how many frames it admits.
int admitted(int targetFPS, double cameraFPS, double jitter) {
  RecordingCadence cadence{targetFPS};
  int count = 0;
  for (int i = 0; i < 600; ++i)
    count += cadence.admit(100 + i / cameraFPS + (1 - i % 3) * jitter) ? 1 : 0;
  return count;
}

TEST(GridCadence, AdmitsOnlyFramesThatReachTheNextPointOfTheGrid) {
  EXPECT_EQ(admitted(60, 60, 0), 600);
  EXPECT_EQ(admitted(30, 60, 0), 300);
  EXPECT_NEAR(admitted(45, 60, 0), 450, 1);
  EXPECT_EQ(admitted(60, 25, 0.002), 600);
  EXPECT_EQ(admitted(30, 30, 0.4e-6), 600);  // 0.8 µs early is within the tolerance of 1 µs
  EXPECT_EQ(admitted(30, 30, 0.6e-6), 400);  // 1.2 µs is too early: one frame in three is refused
}

TEST(SteadyCadence, AdmitsFramesEarlyByUpToAThirdOfAnIntervalAndNoBurstAfterAPause) {
  using Times = std::vector<double>;
  const std::pair<Times, Times> cases[] = {
      {{1, 1.0221, 1.1}, {1, 1.1}},
      {{1, 1.0223, 1.0446, 1.1}, {1, 1.0223, 1.1}},
      {{1, 1.0666, 1.089, 1.1}, {1, 1.0666, 1.089, 1.1}},  // late by less than an interval
      {{1, 1.0667, 1.089, 1.1}, {1, 1.0667, 1.089}},       // late by more than an interval
      {{1, 11, 11.001, 11.01, 11.0111, 11.0334}, {1, 11, 11.0334}},
      {{1, 1, 1, 1.0334, 1.0334}, {1, 1.0334}}};
  for (const auto& [camera, take] : cases) {
    RecordingCadence cadence{30, CadenceRule::steady};
    Times taken = camera;
    std::erase_if(taken, [&](double time) { return !cadence.admit(time); });
    EXPECT_EQ(taken, take);
  }
}

TEST(MovieTiming, LimitsTheDurationOfASampleAndEndsAtTheStop) {
  EXPECT_EQ(lastUntil(10, 11 + longestSample, shortestSample).duration, longestSample);
  EXPECT_DOUBLE_EQ(movieEndTime(10.0, 10.0, 12.6, 12.5, 30), 2.5);
  EXPECT_DOUBLE_EQ(movieEndTime(10.0, 10.0, 10.0, 10.0, 30), 1.0 / 60000);
  EXPECT_DOUBLE_EQ(movieEndTime({}, 5.0, 9.0, 12.0, 30), 7.0);
}

TEST(FrameTime, IsTheIDIfTheIDIsATimeInTheLastTwoSeconds) {
  constexpr std::uint64_t second = 1'000'000, now = 100 * second;
  for (const auto& [id, time] : {std::pair{now - second, 99.0},
                                 {now, 100.0},
                                 {now - 2 * second + 1, 98.000001},
                                 {now - 2 * second - 1, 100.0},
                                 {now + 1, 100.0},
                                 {std::uint64_t{7}, 100.0}})
    EXPECT_DOUBLE_EQ(frameTime(id, 100), time) << id;
}

TEST(TakeEvents, HaveThirteenKeysAndAnIntegerDurationAtTheStart) {
  TakeReport report{"i", TakeState::starting, "/p", 30};
  EXPECT_EQ(makeTakeEvent(report).json.dump(),
            R"({"dropped":0,"duration":0,"error":"","frames":0,"height":0,"id":"i","path":"/p",)"
            R"("recent_fps":0.0,"state":"starting","target_fps":30,"throttled":0,)"
            R"("type":"recording","width":0})");
  report.state = TakeState::failed;
  report.error = std::string(241, 'x');
  const Json failed = makeTakeEvent(report).json;
  EXPECT_EQ(failed["duration"].dump(), "0.0");
  EXPECT_EQ(failed["error"], std::string(240, 'x'));
  report.path = std::string(1700, '/');  // each slash takes two bytes in an event's line
  report.more = {{"kept_path", std::string(300, 'x')}};
  EXPECT_EQ(makeTakeEvent(report).json.size(), 13u);
  const TakeEvent progress{TakeState::recording, {{"seconds_left", 5.0}}};
  EXPECT_FALSE(failedEvent(progress, "x").json.contains("seconds_left"));
}

}  // namespace
}  // namespace lumora
