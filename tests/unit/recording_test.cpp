// Takes on fakes: commands, the timeline and losses of the recorder, failures, events.

#include "encode/session_settings.h"
#include "record/recording_command.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Timings = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST_F(Takes, RefuseABadStartAndGoOn) {
  const auto expectRefused = [this](const std::string& what, const Json& extra) {
    const auto events = sendStart(extra);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["error"], "recording " + what + " is invalid") << extra;
    EXPECT_EQ(events[0].size(), 10u);
  };
  const std::string profile = "resolution or target frame rate", state = "destination or state";
  const auto pathOf = [](std::size_t bytes) { return "/" + std::string(bytes - 5, 'a') + ".mp4"; };
  const std::tuple<std::string, const char*, Json> invalid[] = {
      {profile, "resolution", {"640x360", "1280x720"}},  // without a rate
      {profile, "target_fps", {30, 60}},                 // without a resolution
      {"start time", "started_at", {1000 - 30.1, 1000.06, true, 1e308}},
      {state, "path", {"a.mp4", "/a.MP4", std::string("/a\0.mp4", 7), 7, pathOf(3001)}},
      {"bit_rate", "bit_rate", {249999, 50000001, 1e6 + 0.5, "1000000", nullptr}},
      {"rotation", "rotation", {-90, 45, 360, true}},
      {"on_failure", "on_failure", {"delete", 1, true}},
      {"minimum_free", "minimum_free", {-1, 9007199254740993, "1"}},
      {"frame_log", "frame_log", {1, "true", nullptr}},
      {"sound", "sound", {1, "true", nullptr}},
      {"sound_bit_rate", "sound_bit_rate", {31999, 320001, "64000"}}};
  for (const auto& [what, key, values] : invalid)
    for (const Json& value : values) expectRefused(what, {{key, value}});
  expectRefused(profile, {{"resolution", "1280x720"}, {"target_fps", 30}});
  for (const Json& rate : Json{true, 24, 30.5, 1e308})
    expectRefused(profile, {{"resolution", "640x360"}, {"target_fps", rate}});
  EXPECT_TRUE(isRecordingDestination(pathOf(3000)));
  EXPECT_TRUE(recordingTimestamp(1000.04, 1000) && recordingTimestamp(970, 1000));
  start(Json::parse(R"({"resolution":"640x360", "target_fps":30.0, "cadence":"steady", )"
                    R"("bit_rate":250000, "rotation":270.0, "minimum_free":9007199254740992})"));
  EXPECT_EQ(probe.take()->cadence.rule, CadenceRule::steady);
  auto settings = sessionSettings(SessionKind::recording, {640, 360}, 30);
  settings.bitRate = 250000;
  EXPECT_EQ(probe.encoders->ahead, std::vector{settings});
  expectRefused(state, {{"path", "/b.mp4"}});
  EXPECT_EQ(sendStart({{"sound", true}}).at(0)["error"], "recording sound is unavailable");
  EXPECT_EQ(sendStart({{"path", "/b.mp4"}}).at(0)["path"], "/b.mp4");
  EXPECT_EQ(TakeOptions::parse({{"cadence", 1}}).cadence, CadenceRule::grid);
}

TEST_F(Takes, BeginAtZeroAndDropSamplesAfterALossUntilAKeyFrame) {
  start({{"started_at", 1000.0}});
  frame(999.99, true);  // before the start
  frame(1000.1);        // no key frame yet
  EXPECT_TRUE(probe.movies->writers.empty());
  frame(1000.2, true);
  frame(1000.25);
  frame(1000.251);  // throttled
  feed(1000.3);
  probe.answer(nullptr, 0, infoFrameDropped);
  frame(1000.35);  // needs the one that was lost
  frame(1000.4, true);
  frame(1000.45);  // at the stop
  const Submitted wanted = {{1, true}, {2, true}, {3, false}, {4, false},
                            {5, true}, {6, true}, {7, false}};
  EXPECT_EQ(probe.lastSession().submitted, wanted);
  const Json saved = finish({{"stopped_at", 1000.45}});
  EXPECT_EQ(writer().timings, (Timings{{0, 15000}, {15000, 9000}, {24000, 3000}}));
  EXPECT_EQ(writer().end, 27000);
  EXPECT_NEAR(saved["duration"].get<double>(), 0.45, 1e-9);
  expectKeys(saved, {{"frames", 3}, {"dropped", 4}, {"throttled", 1}});
}

TEST_F(Takes, DropSamplesWhileTwoWaitForTheDisk) {
  start();
  std::vector<bool> taken;
  for (const bool keyframe : {true, false, false, false, true})
    taken.push_back(probe.take()->append(keyframe ? keySample() : deltaSample(), {}, keyframe));
  EXPECT_EQ(taken, (std::vector<bool>{true, true, false, false, false}));
  probe.run();
  EXPECT_FALSE(probe.take()->append(deltaSample(), {}, false));
  EXPECT_TRUE(probe.take()->append(keySample(), {}, true));
}

TEST_F(Takes, SpreadABurstAndCatchUpInThePauseBehindIt) {
  start();
  for (const double at : {0.0, 0.001, 0.002, 0.003, 1.0, 1.0, 1.1}) {
    ASSERT_TRUE(probe.take()->append(keySample(), {1, 1000 + at}, true));
    probe.run();
  }
  const Json saved = finish({{"stopped_at", 1000.0}});
  const Timings wanted = {{0, 100},     {100, 100},    {200, 100},   {300, 59700},
                          {60000, 100}, {60100, 5900}, {66000, 1000}};
  EXPECT_EQ(writer().timings, wanted);
  EXPECT_EQ(writer().end, 67000);
  EXPECT_NEAR(saved["duration"].get<double>(), 1.1 + 1.0 / 60, 1e-9);
}

TEST_F(Takes, FailInTheWordsOfTheCallThatFailed) {
  const std::string full = "No space left on device";
  using Case = std::tuple<const char*, int, std::optional<std::string>, std::string>;
  const Case cases[] = {{"createSession", 1, {}, "hardware encoder creation failed (-1)"},
                        {"submit", 2, {}, "camera frame submission failed (-1)"},
                        {"convert", 1, {}, "RGBA conversion failed"},
                        {"exists", 1, {}, "invalid or existing recording destination"},
                        {"exists", 2, {}, "invalid or existing recording destination"},
                        {"exists", 3, {}, "frame log exists"},
                        {"createWriter", 1, {}, "Permission denied"},
                        {"canAdd", 1, {}, "recording format unavailable"},
                        {"startWriting", 1, {}, "recording writer failed"},
                        {"isReady", 1, {}, "recording disk cannot keep up"},
                        {"append", 1, {}, "recording sample append failed (0)"},
                        {"append", 2, full, full},
                        {"none", 1, {}, "recording finalization failed"},
                        {"none", 1, full, full}};
  for (const auto& [call, nth, problem, message] : cases) {
    SCOPED_TRACE(call);
    probe.restart();
    probe.failures->fail(call, nth);
    probe.movies->problem = problem;
    start({{"frame_log", nth == 3}});
    frame(1001.0, true);
    frame(1001.1);
    probe.command({{"type", "record_stop"}, {"id", takeID}});
    probe.run();
    if (!probe.movies->writers.empty() && writer().finished)
      writer().complete(WriterStatus::failed);
    EXPECT_EQ(failure(), message);
    for (const auto& made : probe.movies->writers) EXPECT_EQ(made->state, WriterStatus::cancelled);
    EXPECT_EQ(probe.files->removed.size(), probe.movies->writers.size());
    for (const auto& made : probe.encoders->sessions) EXPECT_TRUE(made->invalidated);
    EXPECT_FALSE(probe.isRawBusy());
    EXPECT_TRUE(probe.process->exitCodes.empty());
    start();
  }
}

TEST_F(Takes, FailForTheirEncoderBesideThePreviewAndTheNextTake) {
  const auto client = probe.connectClient();
  start();
  feed(1000);
  FakeSession& recording = *probe.encoders->sessions.at(0);
  FakeSession& preview = *probe.encoders->sessions.at(1);
  recording.answer(-22, nullptr);
  probe.queue->run();  // the take is abandoned, and has not said so
  EXPECT_TRUE(probe.isRawBusy() && !recording.invalidated);  // a frame is in flight
  const auto said = sendStart();
  ASSERT_EQ(said.size(), 2u);
  EXPECT_EQ(said[0]["error"], "camera encoding failed (-22)");
  EXPECT_EQ(said[0].size(), 13u);
  EXPECT_EQ(said[1]["state"], "starting");
  EXPECT_EQ(failure(), "");
  preview.answer(0, keySample());
  probe.run();
  EXPECT_TRUE(!probe.isRawBusy() && recording.invalidated);
  EXPECT_EQ(client->sent.size(), 1u);
  EXPECT_EQ(probe.statistics()["record_encoder_failures"], 1);
  EXPECT_NE(probe.take(), nullptr);
}

TEST_F(Takes, SayThatTheyHaveFailedBeforeTheProcessEnds) {
  for (const bool inTime : {true, false}) {
    probe.restart();
    start();
    feed(1000);
    probe.lastSession().answer(-22, nullptr);
    probe.queue->run();
    (*probe).shutdown(0);
    EXPECT_TRUE(probe.process->exitCodes.empty());  // its file is still to be removed
    EXPECT_EQ(sendStart().at(0)["error"], "recording destination or state is invalid");
    inTime ? probe.run() : (*probe).exitNow(0);
    expectKeys(probe.process->takeEvent("recording"), {{"error", "camera encoding failed (-22)"}});
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  }
}

TEST_F(Takes, ReportProgressOnceASecondAndTheirOutcomeWithEveryReport) {
  startWithFrame();
  EXPECT_EQ(events("recording").size(), 1u);
  frame(1001.5);
  probe.tick();
  EXPECT_TRUE(events("recording").empty());
  probe.tickAt(1002.6);
  probe.run();
  expectKeys(probe.process->takeEvent("recording"), {{"frames", 1}, {"duration", 0.5}});
  // A file whose disk has failed makes no progress, even before a sample meets the failure.
  writer().problem = "No space left on device";
  probe.tickAt(1003.7);
  EXPECT_TRUE(events("recording").empty());
  writer().problem.reset();
  const Json saved = finish();
  for (int i = 0; i < 2; ++i) {
    probe.tickAt(probe.clock->now + 1);
    EXPECT_EQ(probe.process->takeEvents("recording"), std::vector<Json>{saved});
  }
}

}  // namespace
}  // namespace lumora
