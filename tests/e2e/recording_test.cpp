// Takes on the real disk, judged by ffprobe and ffmpeg: timing, profiles, endings, crashes.

#include <csignal>
#include <fstream>
#include <random>

#include "tests/e2e/take_fixture.h"

namespace lumora::tests {
namespace {

using Recording = TakeTest;

TEST_F(Recording, LastsExactlyFromStartToStopInEveryProfile) {
  for (const auto& [name, width, height] :
       {std::tuple{"640x360", 640, 360}, {"1080x720", 1080, 720}, {"1920x1080", 1920, 1080}}) {
    start();
    const double from = uptime();
    startTake({{"started_at", from}, {"resolution", name}, {"target_fps", 30}});
    feedPaced(50, 60);
    const double to = from + 0.7;
    stopTake({{"stopped_at", to}});
    const Event saved = waitForTake("saved");
    EXPECT_EQ(saved["path"], path);
    EXPECT_EQ(saved["error"], "");
    EXPECT_EQ(saved["width"], width);
    const Probe file = probe(path);
    EXPECT_EQ(file.value("codec_name"), "h264");
    EXPECT_EQ(file.value("profile"), "High");
    EXPECT_EQ(file.number("width"), width);
    EXPECT_EQ(file.number("height"), height);
    EXPECT_EQ(file.value("time_base"), "1/60000");
    EXPECT_NEAR(static_cast<double>(file.number("duration_ts")), 0.7 * 60000, 1);
    EXPECT_GE(file.number("nb_read_frames"), 1);
    EXPECT_LE(file.number("nb_read_frames"), 22);  // 0.7 s at 30 a second
    EXPECT_EQ(file.value("nb_frames"), file.value("nb_read_frames"));
    EXPECT_EQ(file.value("color_space"), "smpte170m");
    EXPECT_EQ(decodeErrors(path), "");
    EXPECT_EQ(fileCount(), 1u);
    EXPECT_EQ(finish(), 0);
    std::filesystem::remove(path);
  }
}

TEST_F(Recording, IsUprightBetweenBlackBars) {
  start();
  take(20, 60);
  const Picture picture = decodeLast(path, {1080, 720});
  // 640 × 360 fits as 1080 × 608 with 56 rows of black above and below.
  picture.expect(0.5, 0.03, {0, 0, 0}, 4);
  picture.expect(0.5, 0.97, {0, 0, 0}, 4);
  picture.expect(0.2, 0.2, {200, 30, 30}, 4);
  picture.expect(0.8, 0.2, {30, 200, 30}, 4);
  picture.expect(0.2, 0.8, {30, 30, 200}, 4);
  picture.expect(0.8, 0.8, {90, 90, 90}, 4);
}

TEST_F(Recording, KeepsTheCamerasOwnTiming) {
  for (const double rate : {24.0, 50.0}) {
    start();
    const Event saved = take(30, rate);
    const Probe file = probe(path);
    EXPECT_EQ(file.number("nb_read_frames"), saved["frames"]);
    EXPECT_NEAR(static_cast<double>(file.number("duration_ts")) / 60000,
                saved["duration"].get<double>(), 1.0 / 60000);
    EXPECT_EQ(decodeErrors(path), "");
    EXPECT_EQ(finish(), 0);
    std::filesystem::remove(path);
  }
}

TEST_F(Recording, ReportsProgressAndRepeatsOnlyTheOutcome) {
  start();
  startTake();
  const Event starting = waitForTake("starting");
  EXPECT_EQ(starting.size(), 13u);
  feedPaced(70, 60);
  std::jthread feeding([this] { feedPaced(70, 60); });
  waitForTake("recording");
  EXPECT_GE(waitForTake("recording")["frames"], 1);
  feeding.join();
  stopTake();
  waitForTake("finishing");
  const Event saved = waitForTake("saved");
  EXPECT_EQ(waitForTake("saved"), saved);
  // A second take may follow.
  turnTo(folder / "second.mp4");
  EXPECT_EQ(take(10, 60)["path"], path);
}

TEST_F(Recording, ATakenNameSendsTheTakeToItsRecoveryName) {
  start();
  startTake();
  feedPaced(10, 60);
  waitForTake("recording");
  std::ofstream(path) << "somebody else's";
  stopTake();
  const Event saved = waitForTake("saved");
  EXPECT_EQ(saved["path"], (folder / ("a take.\xC3\xA9.recovered-" + takeID + ".mp4")).string());
  EXPECT_EQ(saved["error"],
            "Final filename was unavailable. Completed video saved at the recovery path shown.");
  EXPECT_EQ(decodeErrors(saved["path"]), "");
  EXPECT_EQ(std::filesystem::file_size(path), 15u);
}

TEST_F(Recording, RefusesExistingFilesAndLeavesThemAlone) {
  for (const std::string& existing : {path, stagingPath()}) {
    start();
    std::ofstream(existing) << "precious";
    startTake();
    feedPaced(5, 60);
    EXPECT_EQ(waitForTake("failed")["error"], "invalid or existing recording destination");
    EXPECT_EQ(std::filesystem::file_size(existing), 8u);
    EXPECT_EQ(fileCount(), 1u);
    EXPECT_EQ(finish(), 0);
    std::filesystem::remove(existing);
  }
}

TEST_F(Recording, EveryWayToEndSavesTheTake) {
  const std::function<void()> endings[] = {
      [this] { helper->closeInput(); }, [this] { helper->sendSignal(SIGTERM); },
      [this] { helper->sendSignal(SIGINT); }, [this] { helper->closeOutput(); }};
  for (const auto& end : endings) {
    start();
    startTake();
    feedPaced(30, 60);
    end();
    EXPECT_EQ(exitCode(), 0);
    EXPECT_EQ(decodeErrors(path), "");
    EXPECT_EQ(fileCount(), 1u);
    std::filesystem::remove(path);
  }
}

TEST_F(Recording, AKilledHelperLosesAtMostTheLastSecond) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 20; ++round) {
    const int frames = std::uniform_int_distribution(20, 130)(random);
    SCOPED_TRACE(frames);
    start();
    const double from = uptime();
    startTake({{"resolution", "640x360"}, {"target_fps", 60}, {"started_at", from}});
    feedPaced(frames, 60, {320, 180});
    const double lasted = uptime() - from;
    helper->sendSignal(SIGKILL);
    helper->wait(20);
    if (lasted > 1) {
      EXPECT_GE(static_cast<double>(probe(stagingPath()).number("duration_ts")) / 60000,
                lasted - 1);
      EXPECT_EQ(decodeErrors(stagingPath()), "");
    }
    std::filesystem::remove(stagingPath());
  }
}

}  // namespace
}  // namespace lumora::tests
