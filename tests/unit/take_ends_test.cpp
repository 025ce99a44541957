// How takes end: stops, names, shutdown.

#include "tests/unit/probe.h"

namespace lumora {
namespace {

const std::string takeStaging = takePath + "." + takeID + ".partial";
const std::string takeRecovery = "a.recovered-" + takeID + ".mp4";

TEST_F(Takes, KeepACompleteMovieEvenIfItCannotBeRenamed) {
  using Moves = std::vector<std::pair<std::string, std::string>>;
  for (const auto& [failing, path] :
       {std::pair{0, takePath}, {1, "/takes/" + takeRecovery}, {2, takeStaging}}) {
    probe.restart();
    probe.failures->fail("move", 1, -1, failing - 1);
    startWithFrame();
    const Json saved = finish();
    EXPECT_EQ(saved["path"], path);
    EXPECT_EQ(saved["error"] == "", failing == 0);
    EXPECT_EQ(probe.files->moves, failing == 2 ? Moves() : (Moves{{takeStaging, path}}));
    EXPECT_TRUE(probe.files->removed.empty());
  }
}

TEST_F(Takes, StopAfterTheFrameInFlightAndIgnoreLaterFrames) {
  start();
  feed(1001.1);
  stop();
  EXPECT_TRUE(probe.movies->writers.empty());
  probe.answer(keySample());
  EXPECT_EQ(probe.process->takeEvent("recording")["state"], "finishing");  // the only event
  ASSERT_TRUE(writer().finished);
  EXPECT_EQ(writer().timings.size(), 1u);  // the frame in flight is part of the movie
  EXPECT_TRUE(probe.lastSession().invalidated);
  EXPECT_FALSE(frame(1001.2));
  EXPECT_EQ(failure(), "");
  complete();
}

TEST_F(Takes, MayBeginAsSoonAsTheLastOneIsReportedSaved) {
  startWithFrame();
  stop();
  writer().complete(WriterStatus::completed);
  probe.dispatch->queues.back()->run();
  const auto saysSaved = testing::Contains(testing::HasSubstr(R"("state":"saved")"));
  while (!testing::Value(probe.process->lines, saysSaved)) ASSERT_TRUE(probe.queue->runNext());
  EXPECT_EQ(sendStart({{"path", "/takes/b.mp4"}}).at(0)["state"], "starting");
}

// The first take fails while its frame is in flight. The next one has the same id.
TEST_F(Takes, HaveSessionsOfTheirOwn) {
  startWithFrame({{"started_at", 1000.0}, {"resolution", "640x360"}, {"target_fps", 30}});
  feed(1001.1);
  FakeSession& abandoned = probe.lastSession();
  stop({{"stopped_at", 999.9}});
  EXPECT_EQ(failure(), "recording stop time is invalid");
  EXPECT_EQ(abandoned.flushes, 0);  // the state queue does not wait for the frame in flight
  start({{"resolution", "1920x1080"}, {"target_fps", 60}});
  abandoned.answer(0, deltaSample());
  probe.run();
  EXPECT_TRUE(abandoned.invalidated);
  EXPECT_EQ(probe.statistics()["record_encoded_frames"], 1);  // the late answer does not count
  ASSERT_TRUE(frame(1001.2, true));
  EXPECT_EQ(probe.lastSession().size, (PictureSize{1920, 1080}));
}

TEST_F(Takes, IgnoreTheStopOfAnotherTakeAndFailWithoutAFrame) {
  start();
  EXPECT_TRUE(send("record_stop", {{"id", "00000000-0000-0000-0000-000000000000"}}).empty());
  EXPECT_EQ(failure(), "");
  stop();
  EXPECT_EQ(failure(), "no camera frames were received for recording");
  EXPECT_TRUE(probe.movies->writers.empty());
}

// Truncated input alone would end the process with status 1. But here the error event can't be
// written, and a broken output starts the shutdown with status 0. The watchdog must get status 0,
// too.
TEST_F(Takes, KeepTheProcessForTwoSecondsAtMost) {
  startWithFrame();
  probe.process->input = {0, 0, 0, 16, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7, 0};  // truncated
  probe.failures->fail("writeOutput", 1, -EPIPE, /*more=*/9);
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.process->watchdog, (std::pair{2.2, 0}));
  probe.runAt(1002.99);
  EXPECT_TRUE(probe.process->exitCodes.empty());
  probe.runAt(1003.0);
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

struct KeptTakes : Takes {
  void startKept() {
    probe.restart();
    lastID = 0;
    startWithFrame({{"on_failure", "keep"}, {"frame_log", true}});
    writer().onDisk = {30, 30000};
    frame(1001.1);
  }
  // The one "failed" event since the last look, or null.
  Json lastEvent() {
    const auto failed = events("failed");
    return failed.size() == 1 ? failed[0] : Json();
  }
  // Another take may not begin before the "failed" event.
  void expectRefusal() {
    EXPECT_EQ(sendStart({{"path", "/takes/b.mp4"}}).at(0)["error"],
              "recording destination or state is invalid");
  }
  const Json named = {{"kept_path", "a.mp4." + takeID + ".partial"}, {"kept_frames", 30}};
};

// Each row of `causes` is one cause: the encoder fails; the camera changes its size; the time of
// the stop is refused; a sample can't be written; the disk fails; 32 MB of samples wait for the
// disk.
TEST_F(KeptTakes, KeepWhatTheyCanAndLogWhyTheRestIsLost) {
  const std::string kept = "2,1001.100000,0.100000,written\n3,1001.200000,,";
  const std::string lost = ",0.000000,written\n2,1001.100000,,disk\n3,1001.200000,,disk\n";
  const std::tuple<std::string, std::size_t, std::string> causes[] = {
      {"encoder", 2, kept + "encoder\n"},
      {"size", 2, kept + "encoder\n"},
      {"stop", 2, kept + "after stop\n"},
      {"sample", 1, lost},
      {"disk", 1, lost},
      {"queue", 1, lost}};
  for (const auto& [cause, frames, lines] : causes) {
    SCOPED_TRACE(cause);
    startKept();
    if (cause == "disk") writer().problem = "No space left on device";
    if (frames == 1)
      probe.failures->fail(cause == "queue" ? "isReady" : "append", 1, -1, /*more=*/1);
    feed(1001.2, cause == "size" ? 320 : 640);
    if (cause == "stop") stop({{"stopped_at", 5.0}});
    if (cause != "size") probe.answer(deltaSample(), cause == "encoder" ? -1 : 0);
    probe.run();
    ASSERT_EQ(writer().timings.size(), frames);
    EXPECT_THAT(writer().takeLines(), testing::EndsWith(lines));
    EXPECT_TRUE(events("failed").empty());
    expectRefusal();
    const bool isFinished = writer().finished != nullptr;
    EXPECT_EQ(isFinished, cause != "disk" && cause != "queue");
    const auto& [time, duration] = writer().timings.back();
    EXPECT_EQ(writer().end, isFinished ? time + duration : -1);
    isFinished ? writer().complete(WriterStatus::completed) : writer().rescued({1, 1000}, true);
    probe.run();
    expectKeys(lastEvent(), {{"kept_path", takeRecovery}, {"kept_frames", frames}});
    EXPECT_EQ(probe.files->moves.at(1),
              std::pair(takeStaging + ".frames.csv", "/takes/" + takeRecovery + ".frames.csv"));
  }
}

TEST_F(KeptTakes, NameTheStagingFileWhenTheDiskHangs) {
  // The take must end within 1.8 s of the signal. The disk fails after 1.5 s, so the rescue has
  // only 0.3 s.
  startKept();
  probe.signal(15);
  probe.clock->now += 1.5;
  writer().problem = "No space left on device";
  writer().complete(WriterStatus::failed);
  EXPECT_TRUE(lastEvent().is_null());
  probe.clock->now += 0.4;
  expectKeys(lastEvent(), named);
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  writer().rescued({30, 30000}, true);
  EXPECT_TRUE(events("failed").empty());
  EXPECT_TRUE(probe.files->moves.empty() && probe.files->removed.empty());

  // The disk hangs in the rename.
  startKept();
  probe.dispatch->hangs = true;
  stop({{"stopped_at", 5.0}});
  writer().complete(WriterStatus::completed);
  EXPECT_TRUE(lastEvent().is_null());
  probe.clock->now += MovieRecorder::rescueTimeout;
  expectKeys(lastEvent(), named);
  start({{"path", "/takes/b.mp4"}});
  probe.dispatch->hangs = false;
  EXPECT_TRUE(events("failed").empty());
}

// The encoder fails while the disk holds up the take's queue, for a while or for good.
TEST_F(KeptTakes, EndInTimeWhenTheirQueueHangs) {
  for (const bool isForGood : {false, true}) {
    startKept();
    feed(1001.2);
    probe.lastSession().answer(-1, nullptr);
    probe.queue->run();
    probe.tickAt(1002.7);
    expectRefusal();
    if (!isForGood) probe.run();
    probe.tickAt(isForGood ? 1003.3 : 1003.1);
    isForGood ? start({{"path", "/takes/b.mp4"}}) : expectKeys(lastEvent(), named);
  }
}

TEST_F(Takes, StopForLackOfSpaceAndSaySoEvenIfTheyThenFail) {
  probe.movies->free = 2000;
  startWithFrame({{"minimum_free", 1000}});
  frame(1001.1);
  probe.tickAt(1002.2);
  // The take may use 1000 more bytes, and has written 8 bytes in 1.1 seconds.
  EXPECT_NEAR(events("recording").back()["seconds_left"].get<double>(), 137.5, 1e-6);
  writer().free = 999;
  frame(1002.3);
  probe.tick();
  probe.run();
  writer().complete(WriterStatus::failed);
  expectKeys(events("failed").at(0), {{"stopped_for", "minimum_free"}});
}

}  // namespace
}  // namespace lumora
