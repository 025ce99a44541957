// Takes on fakes: commands, the recorder's timeline and losses, endings, the relay, shutdown.

#include <gtest/gtest.h>

#include "encode/session_settings.h"
#include "record/recording_command.h"
#include "tests/unit/takes.h"

namespace lumora {
namespace {

using Timings = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST_F(Takes, RefusedStartsChangeNothing) {
  const char* profile = "recording resolution or target frame rate is invalid";
  const char* time = "recording start time is invalid";
  const char* state = "recording destination or state is invalid";
  const std::pair<Json, const char*> cases[] = {
      {{{"resolution", "640x360"}}, profile},
      {{{"target_fps", 30}}, profile},
      {{{"resolution", "640x360"}, {"target_fps", true}}, profile},
      {{{"resolution", "640x360"}, {"target_fps", 24}}, profile},
      {{{"resolution", "640x360"}, {"target_fps", 30.5}}, profile},
      {{{"resolution", "1280x720"}, {"target_fps", 30}}, profile},
      {{{"started_at", 1000 - 30.1}}, time},
      {{{"started_at", 1000.06}}, time},
      {{{"started_at", true}}, time},
      {{{"started_at", std::numeric_limits<double>::max()}}, time},
      {{{"resolution", "640x360"}, {"target_fps", 1e308}}, profile},
      {{{"path", "a.mp4"}}, state},
      {{{"path", "/a.MP4"}}, state},
      {{{"path", std::string("/a\0.mp4", 7)}}, state},
      {{{"path", 7}}, state},
      {{{"path", "/" + std::string(2996, 'a') + ".mp4"}}, state}};
  for (const auto& [extra, message] : cases) {
    Json command = {{"type", "record_start"}, {"path", takePath}};
    command.update(extra);
    const auto events = send(command);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["error"], message) << extra;
    EXPECT_EQ(events[0].size(), 10u);
  }
  EXPECT_TRUE(probe.process->exitCodes.empty());
  EXPECT_TRUE(probe.encoders->ahead.empty());
  start({{"resolution", "640x360"},
         {"target_fps", 30.0},
         {"started_at", 1000.04},
         {"cadence", "steady"}});
  EXPECT_EQ(probe.take()->cadence.rule, CadenceRule::steady);
  const auto settings = sessionSettings(SessionKind::recording, {640, 360}, 30);
  EXPECT_EQ(probe.encoders->ahead, std::vector{settings});
  const auto second = send({{"type", "record_start"}, {"path", "/b.mp4"}});
  EXPECT_EQ(second.at(0)["error"], state);
  EXPECT_EQ(second.at(0)["path"], "/b.mp4");
  EXPECT_TRUE(isRecordingDestination("/" + std::string(2995, 'a') + ".mp4"));
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
  EXPECT_EQ(writer().timings,
            (Timings{{0, 15000}, {15000, 3000}}));  // the frame at the stop is left out
  EXPECT_EQ(writer().end, 18000);
  EXPECT_NEAR(saved["duration"].get<double>(), 0.3, 1e-9);
  EXPECT_EQ(saved["frames"], 2);
  EXPECT_EQ(saved["dropped"], 1);
  EXPECT_EQ(saved["throttled"], 1);
  EXPECT_EQ(saved["path"], takePath);
  const std::pair<std::string, std::string> move{takePath + "." + takeID + ".partial", takePath};
  EXPECT_EQ(probe.files->moves.at(0), move);
}

TEST_F(Takes, NothingIsTakenAfterALossUntilAKeyFrame) {
  start();
  frame(1001.0);  // no key frame yet
  EXPECT_TRUE(probe.movies->writers.empty());
  frame(1001.1, true);
  probe.clock->now = 1001.2;
  probe.feed(++lastID);
  probe.lastSession().answer(0, nullptr, infoFrameDropped);  // the encoder drops one
  probe.run();
  frame(1001.3);
  frame(1001.4, true);
  using Submitted = std::vector<std::pair<std::int64_t, bool>>;
  EXPECT_EQ(probe.lastSession().submitted,
            (Submitted{{1, true}, {2, true}, {3, false}, {4, true}, {5, true}}));
  const Json saved = finish();
  EXPECT_EQ(saved["dropped"], 3);
  EXPECT_EQ(saved["frames"], 2);
}

TEST_F(Takes, AtMostTwoSamplesWaitForTheDisk) {
  start();
  std::vector<bool> taken;
  for (const bool keyframe : {true, false, false, false, true}) {
    taken.push_back(probe.take()->append(keyframe ? keySample() : deltaSample(), 1, keyframe));
  }
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
  EXPECT_EQ(writer().timings, (Timings{{0, 100},
                                       {100, 100},
                                       {200, 100},
                                       {300, 59700},
                                       {60000, 100},
                                       {60100, 5900},
                                       {66000, 1000}}));
  EXPECT_EQ(writer().end, 67000);
  EXPECT_NEAR(saved["duration"].get<double>(), 1.1 + 1.0 / 60, 1e-9);
}

TEST_F(Takes, WriterFailuresEndTheTakeInTheirWords) {
  struct Case {
    Call call;
    std::optional<std::string> problem;
    const char* message;
  };
  const std::string full = "No space left on device";
  for (const auto& [call, problem, message] :
       {Case{Call::exists, {}, "invalid or existing recording destination"},
        {Call::createWriter, {}, "Permission denied"},
        {Call::canAdd, {}, "recording format unavailable"},
        {Call::startWriting, {}, "recording writer failed"},
        {Call::startWriting, full, "No space left on device"},
        {Call::isReady, {}, "recording disk cannot keep up"},
        {Call::append, {}, "recording sample append failed (0)"},
        {Call::append, full, "No space left on device"}}) {
    probe.restart();
    probe.failures->fail(call);
    probe.movies->problem = problem;
    start();
    frame(1001.0, true);
    frame(1001.1);
    EXPECT_EQ(failure(), message);
    for (const auto& made : probe.movies->writers) EXPECT_EQ(made->state, WriterStatus::cancelled);
    EXPECT_EQ(probe.files->removed.size(), probe.movies->writers.size());
    EXPECT_TRUE(probe.lastSession().invalidated);
    EXPECT_TRUE(probe.process->exitCodes.empty());
    start();  // the next take may begin
  }
}

// Every call of the machine fails in its turn, the first time, the second time, until a whole take
// beside a client has no more of that kind.
TEST_F(Takes, EveryFailingCallCostsWhatItMustAndNothingElse) {
  for (int kind = 0; kind < static_cast<int>(Call::count); ++kind) {
    const auto call = static_cast<Call>(kind);
    int nth = 0;
    for (bool hit = true; hit;) {
      SCOPED_TRACE(testing::Message() << kind << ", call " << ++nth);
      probe.restart();
      const auto client = probe.connectClient();
      probe.failures->fail(call, nth, call == Call::writeOutput ? -EAGAIN : -1);
      probe.command({{"type", "record_start"}, {"id", takeID}, {"path", takePath}});
      for (int i = 0; i < 3; ++i) {
        probe.clock->now += 0.5;
        probe.feed(++lastID);
        for (const auto& session : probe.encoders->sessions) {
          if (!session->pending.empty()) session->answer(0, keySample());
        }
        probe.run();
        if (client->cancelled) break;
        if (client->onSent) client->finishSend();
        client->deliver("{\"type\":\"ack\",\"frame_id\":" + std::to_string(lastID) + "}\n");
      }
      probe.command({{"type", "record_stop"}, {"id", takeID}});
      probe.run();
      for (const auto& made : probe.movies->writers) {
        if (made->finished) made->complete(WriterStatus::completed);
      }
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
  probe.feed(++lastID, 640, 360);
  ASSERT_EQ(probe.encoders->sessions.size(), 2u);
  FakeSession& recording = *probe.encoders->sessions[0];
  EXPECT_EQ(recording.kind, SessionKind::recording);
  EXPECT_EQ(probe.encoders->sessions[1]->kind, SessionKind::preview);
  EXPECT_EQ(recording.properties.at(SessionProperty::profileLevel),
            PropertyValue(ProfileLevel::highAuto));
  EXPECT_EQ(recording.size, (PictureSize{1080, 720}));
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
  probe.feed(++lastID);
  probe.encoders->sessions[0]->answer(-22, nullptr);
  probe.queue->run();  // the take is abandoned, and has not said so
  const auto said = send({{"type", "record_start"}, {"path", takePath}});
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
    probe.feed(++lastID);
    probe.lastSession().answer(-22, nullptr);
    probe.queue->run();
    (*probe).shutdown(0);
    EXPECT_TRUE(probe.process->exitCodes.empty());  // its file is still to be removed
    probe.process->takeEvents();
    if (!inTime) (*probe).exitNow(0);
    if (inTime) probe.run();
    const auto said = probe.process->takeEvents("recording");
    ASSERT_EQ(said.size(), 1u);
    EXPECT_EQ(said[0]["error"], "camera encoding failed (-22)");
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  }
}

TEST_F(Takes, AMachineShortOfThreadsOrDescriptorsCostsTheTake) {
  probe.dispatch->refusal = std::errc::too_many_files_open;
  const auto events = send({{"type", "record_start"}, {"path", takePath}});
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1]["state"], "failed");
  EXPECT_EQ(events[1]["error"], "Too many open files");
  EXPECT_EQ(events[1].size(), 13u);
  EXPECT_TRUE(probe.process->exitCodes.empty());
  probe.dispatch->refusal.reset();
  start();
}

TEST_F(Takes, ACameraThatChangesSizeEndsTheTake) {
  start();
  frame(1002.0, true);
  probe.clock->now = 1003;
  probe.feed(++lastID, 320, 240);
  EXPECT_EQ(failure(), "camera recording dimensions changed during this take");
  EXPECT_FALSE(probe.isRawBusy());
}

TEST_F(Takes, ProgressOnceASecondAndNeverOverAStop) {
  start();
  frame(1001.0, true);
  EXPECT_EQ(events("recording").size(), 1u);
  frame(1001.5);
  probe.dispatch->tick();
  EXPECT_TRUE(events("recording").empty());
  probe.tickAt(1002.6);
  const auto progress = events("recording");
  ASSERT_EQ(progress.size(), 1u);
  EXPECT_EQ(progress[0]["frames"], 1);
  EXPECT_EQ(progress[0]["duration"], 0.5);
  // Progress is said once, an outcome again with every report.
  const Json saved = finish();
  for (int i = 0; i < 2; ++i) {
    probe.tickAt(probe.clock->now + 1);
    EXPECT_EQ(probe.process->takeEvents("recording"), std::vector<Json>{saved});
  }
}

}  // namespace
}  // namespace lumora
