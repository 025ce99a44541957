// Takes on fakes: commands, the recorder's timeline and losses, endings, the relay, shutdown.

#include "encode/session_settings.h"
#include "record/recording_command.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Timings = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST_F(Takes, RefusedStartsChangeNothing) {
  const auto expectRefused = [this](const char* what, const Json& extra) {
    const auto events = sendStart(extra);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["error"], std::string("recording ") + what + " is invalid") << extra;
    EXPECT_EQ(events[0].size(), 10u);
  };
  const char* profile = "resolution or target frame rate";
  expectRefused(profile, {{"resolution", "640x360"}});
  expectRefused(profile, {{"target_fps", 30}});
  expectRefused(profile, {{"resolution", "1280x720"}, {"target_fps", 30}});
  for (const Json& rate : Json{true, 24, 30.5, 1e308})
    expectRefused(profile, {{"resolution", "640x360"}, {"target_fps", rate}});
  for (const Json& at : Json{1000 - 30.1, 1000.06, true, std::numeric_limits<double>::max()})
    expectRefused("start time", {{"started_at", at}});
  const auto pathOf = [](std::size_t bytes) { return "/" + std::string(bytes - 5, 'a') + ".mp4"; };
  const char* state = "destination or state";
  for (const Json& path : Json{"a.mp4", "/a.MP4", std::string("/a\0.mp4", 7), 7, pathOf(3001)})
    expectRefused(state, {{"path", path}});
  EXPECT_TRUE(recordingTimestamp(1000.04, 1000).has_value());
  start({{"resolution", "640x360"}, {"target_fps", 30.0}, {"cadence", "steady"}});
  EXPECT_EQ(probe.take()->cadence.rule, CadenceRule::steady);
  const auto settings = sessionSettings(SessionKind::recording, {640, 360}, 30);
  EXPECT_EQ(probe.encoders->ahead, std::vector{settings});
  expectRefused(state, {{"path", "/b.mp4"}});
  EXPECT_EQ(sendStart({{"path", "/b.mp4"}}).at(0)["path"], "/b.mp4");
  EXPECT_TRUE(isRecordingDestination(pathOf(3000)));
  for (const Json& other : {Json::object(), Json{{"cadence", "grid"}}, Json{{"cadence", 1}}})
    EXPECT_EQ(requestedCadence(other), CadenceRule::grid);
}

TEST_F(Takes, TheFirstSampleStandsAtZeroAndEachLastsUntilTheNext) {
  start({{"started_at", 1000.0}});
  frame(999.99, true);  // before the start
  frame(1000.2, true);
  frame(1000.25);
  frame(1000.251);  // throttled
  frame(1000.3);
  const Json saved = finish({{"stopped_at", 1000.3}});
  // The frame at the stop is left out.
  EXPECT_EQ(writer().timings, (Timings{{0, 15000}, {15000, 3000}}));
  EXPECT_EQ(writer().end, 18000);
  EXPECT_NEAR(saved["duration"].get<double>(), 0.3, 1e-9);
  expectKeys(saved, {{"frames", 2}, {"dropped", 1}, {"throttled", 1}});
}

TEST_F(Takes, NothingIsTakenAfterALossUntilAKeyFrame) {
  start();
  frame(1001.0);  // no key frame yet
  EXPECT_TRUE(probe.movies->writers.empty());
  frame(1001.1, true);
  feed(1001.2);
  probe.answer(nullptr, 0, infoFrameDropped);  // the encoder drops one
  frame(1001.3);
  frame(1001.4, true);
  EXPECT_EQ(probe.lastSession().submitted,
            (Submitted{{1, true}, {2, true}, {3, false}, {4, true}, {5, true}}));
  expectKeys(finish(), {{"frames", 2}, {"dropped", 3}});
}

TEST_F(Takes, AtMostTwoSamplesWaitForTheDisk) {
  start();
  std::vector<bool> taken;
  for (const bool keyframe : {true, false, false, false, true})
    taken.push_back(probe.take()->append(keyframe ? keySample() : deltaSample(), 1, keyframe));
  EXPECT_EQ(taken, (std::vector<bool>{true, true, false, false, false}));
  EXPECT_EQ(probe.take()->pendingWork(), 2);
  probe.run();
  EXPECT_FALSE(probe.take()->append(deltaSample(), 2, false));
  EXPECT_TRUE(probe.take()->append(keySample(), 2, true));
}

TEST_F(Takes, BurstsAreToldApartAndThePauseBehindThemPutsThingsRight) {
  start();
  for (const double at : {0.0, 0.001, 0.002, 0.003, 1.0, 1.0, 1.1}) {
    ASSERT_TRUE(probe.take()->append(keySample(), 1000 + at, true));
    probe.run();
  }
  const Json saved = finish({{"stopped_at", 1000.0}});
  const Timings wanted = {{0, 100},     {100, 100},    {200, 100},   {300, 59700},
                          {60000, 100}, {60100, 5900}, {66000, 1000}};
  EXPECT_EQ(writer().timings, wanted);
  EXPECT_EQ(writer().end, 67000);
  EXPECT_NEAR(saved["duration"].get<double>(), 1.1 + 1.0 / 60, 1e-9);
}

TEST_F(Takes, WriterFailuresEndTheTakeInTheirWords) {
  const std::string full = "No space left on device";
  using Case = std::tuple<Call, std::optional<std::string>, std::string>;
  for (const auto& [call, problem, message] :
       {Case{Call::exists, {}, "invalid or existing recording destination"},
        {Call::createWriter, {}, "Permission denied"},
        {Call::canAdd, {}, "recording format unavailable"},
        {Call::startWriting, {}, "recording writer failed"},
        {Call::startWriting, full, full},
        {Call::isReady, {}, "recording disk cannot keep up"},
        {Call::append, {}, "recording sample append failed (0)"},
        {Call::append, full, full}}) {
    probe.restart();
    probe.failures->fail(call);
    probe.movies->problem = problem;
    startWithFrame();
    frame(1001.1);
    EXPECT_EQ(failure(), message);
    for (const auto& made : probe.movies->writers) EXPECT_EQ(made->state, WriterStatus::cancelled);
    EXPECT_EQ(probe.files->removed.size(), probe.movies->writers.size());
    EXPECT_TRUE(probe.lastSession().invalidated);
    start();  // the next take may begin: nothing has ended
  }
}

// Of a whole take beside a client, one call after the other, until there are no more of its kind.
TEST_F(Takes, EveryFailingCallCostsWhatItMustAndNothingElse) {
  for (int kind = 0; kind < static_cast<int>(Call::count); ++kind) {
    const auto call = static_cast<Call>(kind);
    int nth = 0;
    for (bool hit = true; hit;) {
      SCOPED_TRACE(testing::Message() << kind << ", call " << ++nth);
      probe.restart();
      const auto client = probe.connectClient();
      probe.failures->fail(call, nth, call == Call::writeOutput ? -EAGAIN : -1);
      sendStart();
      for (int i = 0; i < 3; ++i) {
        feed(probe.clock->now + 0.5);
        for (const auto& session : probe.encoders->sessions)
          if (!session->pending.empty()) session->answer(0, keySample());
        probe.run();
        if (client->cancelled) break;
        if (client->onSent) client->finishSend();
        client->deliver("{\"type\":\"ack\",\"frame_id\":" + std::to_string(lastID) + "}\n");
      }
      stop();
      probe.run();
      for (const auto& made : probe.movies->writers)
        if (made->finished) made->complete(WriterStatus::completed);
      probe.run();
      hit = probe.failures->hasHit(call);
      EXPECT_FALSE(probe.isRawBusy());
      EXPECT_EQ(probe.take(), nullptr);
      // Only the preview's calls may end the run, and only with 1.
      const bool mayEnd = hit && call <= Call::submit;
      EXPECT_LE(probe.process->exitCodes.size(), mayEnd ? 1u : 0u);
      for (const int code : probe.process->exitCodes) EXPECT_EQ(code, 1);
      ASSERT_LT(nth, 40);
    }
    EXPECT_GT(nth, 1) << kind;  // each kind occurs
  }
}

TEST_F(Takes, RecordingFailuresCostTheTakeNotTheProcess) {
  const auto client = probe.connectClient();
  start();
  feed(1000);
  ASSERT_EQ(probe.encoders->sessions.size(), 2u);
  FakeSession& recording = *probe.encoders->sessions[0];
  EXPECT_EQ(recording.kind, SessionKind::recording);
  EXPECT_EQ(probe.encoders->sessions[1]->kind, SessionKind::preview);
  EXPECT_EQ(recording.properties.at(SessionProperty::averageBitRate),
            PropertyValue(std::int64_t{12000000}));
  recording.answer(-22, nullptr);
  probe.run();
  EXPECT_TRUE(probe.isRawBusy());  // the preview still encodes
  EXPECT_EQ(failure(), "camera encoding failed (-22)");
  EXPECT_FALSE(recording.invalidated);  // a frame is in flight
  probe.encoders->sessions[1]->answer(0, keySample());
  probe.run();
  EXPECT_FALSE(probe.isRawBusy());
  EXPECT_TRUE(recording.invalidated);  // with the release of the frame
  EXPECT_EQ(client->sent.size(), 1u);
  EXPECT_EQ(probe.statistics()["record_encoder_failures"], 1);
  EXPECT_TRUE(probe.process->exitCodes.empty());
}

TEST_F(Takes, WhatAnAbandonedTakeStillDoesIsNotTheNextOnes) {
  const auto client = probe.connectClient();
  start();
  feed(1000);
  probe.encoders->sessions[0]->answer(-22, nullptr);
  probe.queue->run();  // the take is abandoned, and has not said so
  const auto said = sendStart();
  ASSERT_EQ(said.size(), 2u);
  EXPECT_EQ(said[0]["error"], "camera encoding failed (-22)");
  EXPECT_EQ(said[0].size(), 13u);
  EXPECT_EQ(said[1]["state"], "starting");
  EXPECT_EQ(failure(), "");
  probe.encoders->sessions[1]->answer(0, keySample());
  probe.run();
  EXPECT_NE(probe.take(), nullptr);
}

TEST_F(Takes, AnAbandonedTakeSaysSoBeforeTheProcessEnds) {
  for (const bool inTime : {true, false}) {
    probe.restart();
    start();
    feed(1000);
    probe.lastSession().answer(-22, nullptr);
    probe.queue->run();
    (*probe).shutdown(0);
    EXPECT_TRUE(probe.process->exitCodes.empty());  // its file is still to be removed
    probe.process->takeEvents();
    inTime ? probe.run() : (*probe).exitNow(0);
    expectKeys(probe.process->takeEvent("recording"), {{"error", "camera encoding failed (-22)"}});
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  }
}

TEST_F(Takes, AMachineShortOfThreadsOrDescriptorsCostsTheTake) {
  probe.dispatch->refusal = std::errc::too_many_files_open;
  const auto events = sendStart();
  ASSERT_EQ(events.size(), 2u);
  expectKeys(events[1], {{"state", "failed"}, {"error", "Too many open files"}});
  probe.dispatch->refusal.reset();
  start();
}

TEST_F(Takes, ACameraThatChangesSizeEndsTheTake) {
  start();
  frame(1002.0, true);
  feed(1003, 320, 240);
  EXPECT_EQ(failure(), "camera recording dimensions changed during this take");
  EXPECT_FALSE(probe.isRawBusy());
}

TEST_F(Takes, ProgressOnceASecondAndNeverOverAStop) {
  startWithFrame();
  EXPECT_EQ(events("recording").size(), 1u);
  frame(1001.5);
  probe.tick();
  EXPECT_TRUE(events("recording").empty());
  probe.tickAt(1002.6);
  probe.run();
  expectKeys(probe.process->takeEvent("recording"), {{"frames", 1}, {"duration", 0.5}});
  // A file whose disk has failed makes none, though no sample has met the failure yet.
  writer().problem = "No space left on device";
  probe.tickAt(1003.7);
  EXPECT_TRUE(events("recording").empty());
  writer().problem.reset();
  // Progress is said once, an outcome again with every report.
  const Json saved = finish();
  for (int i = 0; i < 2; ++i) {
    probe.tickAt(probe.clock->now + 1);
    EXPECT_EQ(probe.process->takeEvents("recording"), std::vector<Json>{saved});
  }
}

}  // namespace
}  // namespace lumora
