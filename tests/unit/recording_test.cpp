// Tests takes with fakes: commands, the movie's timeline, dropped samples, the log of frames,
// failures, events.

#include "client/records.h"
#include "encode/session_settings.h"
#include "record/recording_command.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Timings = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST_F(Takes, AreRefusedForABadCommandAndStartWithAGoodOne) {
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

struct LoggedTakes : Takes {
  // Adds frames to the reader's input, from this id on.
  void put(std::uint64_t id, int count = 1) {
    for (; count > 0; --count, ++id) {
      probe.put(client::frameHeader({2, 2}, id));
      probe.put(Bytes(2 * 2 * 4));
    }
  }
};

TEST_F(LoggedTakes, BeginAtZeroAndSayWhatBecameOfEachFrameInTheOrderOfReading) {
  start({{"started_at", 1000.0}, {"frame_log", true}});
  frame(999.9, true);
  frame(1000.9);  // no key frame yet
  EXPECT_TRUE(probe.movies->writers.empty());
  frame(1001.0, true);
  feed(1001.2);
  probe.answer(nullptr, 0, infoFrameDropped);
  frame(1001.25);  // needs the lost frame
  frame(1001.3, true);
  EXPECT_EQ(writer().takeLines(),
            "id,captured,movie_time,outcome\n"
            "1,999.900000,,before start\n"
            "2,1000.900000,,waiting for key frame\n"
            "3,1001.000000,0.000000,written\n"
            "4,1001.200000,,encoder\n"
            "5,1001.250000,,waiting for key frame\n");
  frame(1001.301);
  (*probe).encode({.width = 640, .height = 360, .id = 8, .capturedAt = 1001.31});
  lastID = 8;
  feed(1001.5);  // captured at the time of the stop
  put(10, 2);
  probe.put(client::commandRecord(R"({"type":"record_stop","id":")" + takeID + "\"}"));
  put(12);
  probe.readAll();
  EXPECT_EQ(writer().takeLines(), "");  // frame 6 is not written yet, so all lines wait
  probe.answer(deltaSample());
  const Submitted wanted = {{1, true}, {2, true}, {3, false}, {4, true}, {5, true}, {6, false}};
  EXPECT_EQ(probe.lastSession().submitted, wanted);
  EXPECT_EQ(writer().timings, (Timings{{0, 78000}, {78000, 12000}}));
  EXPECT_EQ(writer().end, 90000);
  probe.failures->fail("move", 2);
  const Json saved = complete();
  expectKeys(saved, {{"frames", 2}, {"dropped", 4}, {"throttled", 1}, {"duration", 1.5}});
  expectKeys(saved, {{"path", takePath}, {"frame_log_error", "the final name was unavailable"}});
  EXPECT_EQ(writer().takeLines(),
            "6,1001.300000,1.300000,written\n"
            "7,1001.301000,,throttled\n"
            "8,1001.310000,,undecodable\n"
            "9,1001.500000,,after stop\n"
            "10,1001.500000,,busy\n"
            "11,1001.500000,,busy\n"
            "12,1001.500000,,after stop\n");
}

TEST(FrameLog, KeepsTheFirstOutcomeOfEachFrame) {
  FrameLog log;
  log.note({1, 1.0}, std::nullopt);
  log.note({2, 2.0}, std::nullopt);
  log.settle(2, FrameOutcome::written, 0.5);
  log.end(FrameOutcome::disk);
  log.settle(1, FrameOutcome::written, 0);
  log.settle(2, FrameOutcome::encoder);
  EXPECT_EQ(log.takeLines(),
            "id,captured,movie_time,outcome\n"
            "1,1.000000,,disk\n"
            "2,2.000000,0.500000,written\n");
}

TEST_F(LoggedTakes, EndTheirLogWhenTooManyFramesWait) {
  startWithFrame({{"frame_log", true}});
  feed(1001.1);
  put(101, maximumDropsAhead + 50);
  probe.readAll();
  probe.answer(deltaSample());
  expectKeys(complete(), {{"frames", 2}, {"frame_log_error", "too many frames waited"}});
  EXPECT_THAT(writer().takeLines(), testing::EndsWith(",busy\n1100,1001.100000,,busy\n"));
  FrameLog log;
  for (std::uint64_t id = 0; id < FrameLog::mostFrames; ++id) log.note({id}, {});
  EXPECT_FALSE(log.isIncomplete());
  log.note({FrameLog::mostFrames}, {});
  EXPECT_TRUE(log.isIncomplete());
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

TEST_F(Takes, SpreadABurstAndCatchUpInThePauseAfterIt) {
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

// A take's session scales on its worker. For the preview, the state queue scales at the same time,
// without waiting for the preview's worker.
TEST_F(Takes, AreScaledByTheirSessionWhileThePreviewIsScaledBeforeSubmission) {
  probe.connectClient();
  start();
  feed(1001.0, 1280, 720);
  EXPECT_EQ(probe.images->widths, std::vector<std::int64_t>{640});
  EXPECT_EQ(probe.lastSession().size.width, 640);  // the take's session was made first
  probe.encoders->sessions[0]->answer(0, keySample());
  probe.answer(keySample());
  EXPECT_EQ(probe.images->widths, (std::vector<std::int64_t>{640, 1080}));
  probe.failures->fail("convert");
  feed(1001.1, 1280, 720);
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
  EXPECT_EQ(probe.error(), "RGBA conversion failed");
  probe.encoders->sessions[0]->answer(0, deltaSample());
  probe.run();
  EXPECT_FALSE(probe.isRawBusy());
}

TEST_F(Takes, FailWithTheReasonOfTheFailedCallAndCleanUp) {
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
    startWithFrame({{"frame_log", message == "frame log exists"}});
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

TEST_F(Takes, FailWhenTheirEncoderFailsWhileThePreviewAndTheNextTakeGoOn) {
  const auto client = probe.connectClient();
  start();
  feed(1000);
  FakeSession& recording = *probe.encoders->sessions.at(0);
  FakeSession& preview = *probe.encoders->sessions.at(1);
  recording.answer(-22, nullptr);
  probe.queue->run();  // the take is abandoned, but has not said so yet
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
    EXPECT_TRUE(probe.process->exitCodes.empty());  // the process waits for the take's queue
    EXPECT_EQ(sendStart().at(0)["error"], "recording destination or state is invalid");
    inTime ? probe.run() : (*probe).exitNow(0);
    expectKeys(probe.process->takeEvent("recording"), {{"error", "camera encoding failed (-22)"}});
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  }
}

TEST_F(Takes, ReportProgressOnceASecondAndThenRepeatTheirOutcome) {
  startWithFrame();
  EXPECT_EQ(events("recording").size(), 1u);
  frame(1001.5);
  probe.tick();
  EXPECT_TRUE(events("recording").empty());
  probe.tickAt(1002.6);
  probe.run();
  expectKeys(probe.process->takeEvent("recording"), {{"frames", 1}, {"duration", 0.5}});
  // A disk failure ends the progress reports at once. The take fails only at its next sample.
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
