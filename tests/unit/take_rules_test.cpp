// Rules of takes, each by itself: commands, key frames, cadence, the movie's end, the relay.

#include <array>
#include <random>

#include "encode/encoder_failure.h"
#include "encode/recording_keyframe.h"
#include "record/movie_timing.h"
#include "record/recording_cadence.h"
#include "record/take_event.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

TEST(Commands, MalformedOnesAreFatal) {
  const std::string id = R"(,"id":"6f9619ff-8b86-d011-b42d-00cf4fc964ff"})";
  const std::string pause = R"({"type":"pause")" + id;
  for (const std::string& text : std::initializer_list<std::string>{
           "x", "[]", R"({"type":"record_start"})",
           R"({"type":"record_start","id":"6f9619ff8b86d011b42d00cf4fc964ff"})",
           R"({"type":"record_start","id":"6f9619ff-8b86-d011-b42d-00cf4fc964fg"})",
           R"({"type":1)" + id, pause}) {
    VideoEncoderProbe fresh;
    fresh.commandText(text);
    EXPECT_EQ(fresh.error(),
              text == pause ? "unknown recording command" : "invalid recording command");
    EXPECT_EQ(fresh.process->exitCodes, std::vector<int>{1});
  }
}

TEST(JsonText, HasNoEndBeforeItsEndAndNumbersWithoutALimit) {
  const auto parse = [](const std::string& text) {
    return parseJson({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
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

TEST(RecordingKeyframe, ChecksTheSample) {
  EXPECT_TRUE(recordingKeyframe(*makeSample({0x67, 0x68, 0x65})));
  EXPECT_FALSE(recordingKeyframe(*deltaSample()));
  const std::pair<Bytes, const char*> cases[] = {
      {{0, 0, 0, 0}, "camera sample too large"},
      {{0, 0, 0, 2, 0x65}, "invalid camera NAL size"},
      {{0, 0, 0, 1, 0x65, 0}, "invalid camera NAL header"}};
  for (const auto& [bytes, message] : cases) {
    EXPECT_THAT([&] { recordingKeyframe(MemorySample(bytes, nullptr)); },
                testing::ThrowsMessage<EncoderFailure>(message));
  }
}

TEST(RecordingCadence, ThinsAndFollowsTheCamera) {
  const auto admitted = [](int targetFPS, double cameraFPS, double jitter) {
    RecordingCadence cadence{targetFPS};
    int count = 0;
    for (int i = 0; i < 600; ++i)
      count += cadence.admit(100 + i / cameraFPS + (i % 3 - 1) * jitter) ? 1 : 0;
    return count;
  };
  EXPECT_EQ(admitted(60, 60, 0), 600);
  EXPECT_EQ(admitted(30, 60, 0), 300);
  EXPECT_EQ(admitted(15, 60, 0), 150);
  EXPECT_NEAR(admitted(45, 60, 0), 450, 1);
  EXPECT_EQ(admitted(60, 25, 0.002), 600);
  EXPECT_NEAR(admitted(30, 50, 0.001), 360, 8);
  for (const auto& [early, taken] : {std::pair{0.9e-6, true}, {1.1e-6, false}}) {
    RecordingCadence at30{30};
    EXPECT_TRUE(at30.admit(1));
    EXPECT_EQ(at30.admit(1 + 1.0 / 30 - early), taken);
  }
}

// Seconds at which a camera's frames come, with Gaussian jitter; the same in every run.
std::vector<double> cameraTimes(double framesPerSecond, double jitter, double seconds = 600) {
  std::mt19937 random(7);
  std::normal_distribution<double> deviation(0, 1);
  std::vector<double> times;
  for (int i = 0; i < framesPerSecond * seconds; ++i)
    times.push_back(100 + i / framesPerSecond + jitter * deviation(random));
  return times;
}

std::vector<double> admittedSteadily(int targetFPS, const std::vector<double>& times) {
  RecordingCadence cadence{targetFPS, CadenceRule::steady};
  std::vector<double> admitted;
  std::ranges::copy_if(times, std::back_inserter(admitted),
                       [&](double time) { return cadence.admit(time); });
  return admitted;
}

TEST(SteadyCadence, AdmitsWhatTheTargetHasRoomForAndNeverMore) {
  // What share of the camera's frames is admitted, with 0.1, 1 and 3 ms of jitter.
  const std::tuple<double, int, std::array<double, 3>> cases[] = {
      {30, 30, {100, 100, 99.9}},    {60, 60, {100, 100, 99.9}}, {29.97, 30, {100, 100, 99.7}},
      {59.94, 60, {100, 100, 98.5}}, {60, 30, {50, 50, 50}},     {60, 45, {75, 75, 75}},
      {25, 60, {100, 100, 100}}};
  for (const auto& [camera, target, percent] : cases) {
    for (std::size_t i = 0; i < 3; ++i) {
      const auto times = cameraTimes(camera, std::array{1e-4, 1e-3, 3e-3}[i]);
      const auto admitted = admittedSteadily(target, times);
      const double share =
          100.0 * static_cast<double>(admitted.size()) / static_cast<double>(times.size());
      EXPECT_NEAR(share, percent[i], 0.35) << camera << " into " << target << ", " << i;
      EXPECT_LE(std::ssize(admitted), 600 * target + 1);
      const auto most = static_cast<std::size_t>(target) + 2;  // within any one second
      for (std::size_t last = most; last < admitted.size(); ++last)
        ASSERT_GE(admitted[last] - admitted[last - most], 1);
    }
  }
}

TEST(SteadyCadence, TakesLossesPausesAndBurstsAsTheyCome) {
  using Times = std::vector<double>;
  const auto at30 = [](const Times& times) { return admittedSteadily(30, times); };
  using Limits = std::numeric_limits<double>;
  EXPECT_EQ(at30({-1, Limits::infinity(), Limits::quiet_NaN(), 0}), (Times{0}));
  EXPECT_EQ(at30({1, 1.0223, 1.1}), (Times{1, 1.0223, 1.1}));  // early by a third of 1/30
  EXPECT_EQ(at30({1, 1.0221, 1.1}), (Times{1, 1.1}));
  EXPECT_EQ(at30({1, 1.0667, 1.1}), (Times{1, 1.0667, 1.1}));  // one is lost: the grid goes on
  // After a pause nothing is made up for, in a burst nothing is doubled.
  EXPECT_EQ(at30({1, 11, 11.001, 11.01, 11.0111, 11.0334}), (Times{1, 11, 11.0334}));
  EXPECT_EQ(at30({1, 1, 1, 1.0334, 1.0334}), (Times{1, 1.0334}));
}

TEST(MovieTiming, ASampleLastsAsLongAsATableCanSay) {
  EXPECT_EQ(lastUntil(10, 10 + longestSample, shortestSample).duration, longestSample);
  EXPECT_EQ(lastUntil(10, 11 + longestSample, shortestSample).duration, longestSample);
  EXPECT_EQ(lastUntil(10, 109, shortestSample).duration, 100);
}

TEST(MovieEndTime, FollowsTheStopOrTheLastFrame) {
  EXPECT_DOUBLE_EQ(movieEndTime(10.0, 10.0, 12.6, 12.5, 30), 2.5);
  EXPECT_DOUBLE_EQ(movieEndTime(10.0, 10.0, 10.0, 10.0, 30), 1.0 / 60000);
  EXPECT_DOUBLE_EQ(movieEndTime({}, 5.0, 9.0, 8.9, 30), 4 + 1.0 / 30);
  EXPECT_DOUBLE_EQ(movieEndTime({}, 5.0, 9.0, 12.0, 30), 7.0);
}

TEST(TakeEvents, HaveThirteenKeysAndAnIntegerOnlyAtTheStart) {
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
}

TEST(TakeEvents, AreRelayedUnlessTheyComeTooLate) {
  using enum TakeState;
  // The last event, whether a stop is pending, the next event, whether that is relayed.
  const std::tuple<TakeState, bool, TakeState, bool> cases[] = {
      {starting, false, recording, true},  {starting, true, recording, false},
      {recording, false, recording, true}, {recording, true, finishing, true},
      {recording, true, failed, true},     {finishing, false, recording, false},
      {finishing, true, saved, true},      {finishing, true, failed, true},
      {saved, false, failed, false},       {failed, false, failed, false},
      {failed, false, recording, false},   {failed, false, saved, false}};
  for (const auto& [last, stopping, next, relayed] : cases) {
    EXPECT_EQ(relaysEvent({last, {}}, stopping, {next, {}}), relayed)
        << static_cast<int>(last) << static_cast<int>(next);
  }
}

}  // namespace
}  // namespace lumora
