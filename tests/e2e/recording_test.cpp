// Takes on the real disk, judged by ffprobe and ffmpeg: timing, profiles, endings, crashes.

#include <csignal>
#include <fstream>
#include <random>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Recording = HelperTest;

TEST_F(Recording, LastsExactlyFromStartToStopInEveryProfile) {
  for (const auto& [name, width, height, cameraRate] : {std::tuple{"640x360", 640, 360, 24},
                                                        {"1080x720", 1080, 720, 60},
                                                        {"1920x1080", 1920, 1080, 50}}) {
    start();
    for (const char* file : {"first.mp4", "second.mp4"}) {  // the second has the first's encoder
      turnTo(folder / file);
      const double from = uptime();
      startTake({{"started_at", from}, {"resolution", name}, {"target_fps", 30}});
      feedPaced(cameraRate * 5 / 6, cameraRate);
      const Event saved = saveTake({{"stopped_at", from + 0.7}});
      expectKeys(saved, {{"path", path}, {"error", ""}, {"width", width}});
      const Event movie = probe(path);
      expectKeys(movie, {{"codec_name", "h264"}, {"profile", "High"}, {"color_space", "bt709"}});
      expectKeys(movie, {{"width", width}, {"height", height}, {"time_base", "1/60000"}});
      EXPECT_NEAR(movie["duration_ts"].get<double>(), 0.7 * 60000, 1);
      EXPECT_NEAR(saved["duration"].get<double>(), 0.7, 1e-4);
      const int frames = std::stoi(movie["nb_read_frames"].get<std::string>());
      EXPECT_GE(frames, 1);
      EXPECT_LE(frames, 22);               // 0.7 s at 30 a second
      EXPECT_GE(saved["frames"], frames);  // those after the stop were written, too
      EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);
      std::filesystem::remove(path);
      EXPECT_TRUE(std::filesystem::is_empty(folder));
    }
  }
}

TEST_F(Recording, IsUprightBetweenBlackBars) {
  start();
  take(20, 60);
  const Picture picture = decodeLast(path, {1080, 720});
  // 640 × 360 fits as 1080 × 608 with 56 rows of black above and below.
  for (const double y : {0.03, 0.97}) picture.expect(0.5, y, {0, 0, 0}, 4);
  picture.expect(0.2, 0.2, {200, 30, 30}, 4);
  picture.expect(0.8, 0.2, {30, 200, 30}, 4);
  picture.expect(0.2, 0.8, {30, 30, 200}, 4);
  picture.expect(0.8, 0.8, {90, 90, 90}, 4);
}

TEST_F(Recording, ATakenNameSendsTheTakeToItsRecoveryName) {
  start();
  startTake();
  feedPaced(10, 60);
  waitForTake("recording");
  std::ofstream(path) << "somebody else's";
  const std::string recovered = folder / ("a take.\xC3\xA9.recovered-" + takeID + ".mp4");
  stopTake();
  EXPECT_EQ(waitForTake("saved")["path"], recovered);
  EXPECT_EQ(decodeErrors(recovered), "");
  EXPECT_EQ(std::filesystem::file_size(path), 15u);
}

TEST_F(Recording, EveryWayToEndEndsWithZeroAndSavesATake) {
  const std::function<void()> endings[] = {
      [this] { helper->closeInput(); }, [this] { helper->sendSignal(SIGTERM); },
      [this] { helper->sendSignal(SIGINT); }, [this] { helper->closeOutput(); },
      [this] {
        helper->closeOutput();
        helper->closeInput();
      }};
  for (const auto& end : endings) {
    start();
    startTake();
    feedPaced(60, 60);
    waitForTake("recording");
    end();
    EXPECT_EQ(exitCode(), 0);
    EXPECT_EQ(decodeErrors(path), "");
    EXPECT_GT(countFrames(path), 3);
    std::filesystem::remove(path);
    EXPECT_TRUE(std::filesystem::is_empty(folder));
  }
}

TEST_F(Recording, AKilledHelperLosesAtMostTheLastSecond) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < (sanitized ? 3 : 10); ++round) {
    const int frames = std::uniform_int_distribution(70, 130)(random);
    SCOPED_TRACE(frames);
    start();
    const double from = uptime();
    startTake({{"resolution", "640x360"}, {"target_fps", 60}, {"started_at", from}});
    feedPaced(frames, 60, {320, 180});
    const double lasted = uptime() - from;
    helper->sendSignal(SIGKILL);
    exitCode();
    EXPECT_GE(probe(stagingPath())["duration_ts"].get<double>() / 60000, lasted - 1);
    EXPECT_EQ(decodeErrors(stagingPath()), "");
    std::filesystem::remove(stagingPath());
  }
}

}  // namespace
}  // namespace lumora::tests
