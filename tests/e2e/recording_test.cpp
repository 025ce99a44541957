// Takes on real disks, also such that fail: timing, profiles, endings, crashes. ffprobe and ffmpeg
// judge the movies.

#include <gmock/gmock.h>
#include <lumora/recover.h>
#include <sys/mount.h>
#include <sys/resource.h>

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
      EXPECT_GE(saved["frames"], frames);  // it counts frames after the stop, too
      EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);
      std::filesystem::remove(path);
      EXPECT_TRUE(std::filesystem::is_empty(folder));
    }
  }
}

TEST_F(Recording, IsUprightBetweenBlackBarsAndReplacesNoFile) {
  start();
  startTake();
  feedPaced(20);
  waitForTake("recording");
  std::ofstream(path) << "somebody else's";
  const std::string recovered = folder / ("a take.\xC3\xA9.recovered-" + takeID + ".mp4");
  stopTake();
  EXPECT_EQ(waitForTake("saved")["path"], recovered);
  EXPECT_EQ(std::filesystem::file_size(path), 15u);
  // 640 × 360 fits as 1080 × 608, with 56 black rows above and below.
  const std::vector<Spot> spots = {{0.5, 0.03, {0, 0, 0}},    {0.5, 0.97, {0, 0, 0}},
                                   {0.2, 0.2, {200, 30, 30}}, {0.8, 0.2, {30, 200, 30}},
                                   {0.2, 0.8, {30, 30, 200}}, {0.8, 0.8, {90, 90, 90}}};
  expectColours(recovered, {1080, 720}, spots, 4);
}

TEST_F(Recording, IsSavedHoweverTheHelperIsEnded) {
  const auto send = [this](int signal) { return [this, signal] { helper->sendSignal(signal); }; };
  const auto closeInput = [this] { helper->closeInput(); };
  const auto closeOutput = [this] { helper->closeOutput(); };
  const auto closeBoth = [&] { closeOutput(), closeInput(); };
  const std::function<void()> endings[] = {send(SIGTERM), send(SIGINT), send(SIGHUP),
                                           closeInput,    closeOutput,  closeBoth};
  sigset_t all, usual;
  sigfillset(&all);
  for (const auto& end : endings) {
    pthread_sigmask(SIG_SETMASK, &all, &usual);  // the helper inherits that
    start();
    pthread_sigmask(SIG_SETMASK, &usual, nullptr);
    startTake();
    feedPaced(60);
    waitForTake("recording");
    end();
    EXPECT_EQ(exitCode(), 0);
    EXPECT_EQ(decodeErrors(path), "");
    EXPECT_GT(countFrames(path), 3);
    std::filesystem::remove(path);
    EXPECT_TRUE(std::filesystem::is_empty(folder));
  }
}

TEST_F(Recording, LosesAtMostTheLastSecondWhenTheHelperIsKilled) {
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

using Recovery = HelperTest;

TEST_F(Recovery, MakesAMovieOfAKilledTakeAndLeavesARunningOne) {
  const auto recover = [this] { return client::recoverTakes(folder, helperProgram()); };
  start();
  startTake({{"resolution", "640x360"}, {"target_fps", 60}});
  feedPaced(90, 60, {320, 180});
  waitForTake("recording");
  EXPECT_EQ(recover().at(0).left, "it is still being recorded");
  helper->sendSignal(SIGKILL);
  exitCode();
  EXPECT_THAT(recover().at(0).left, testing::HasSubstr("younger than a minute"));
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(stagingPath(), now - std::chrono::minutes(2));
  const int frames = countFrames(stagingPath());
  const auto take = recover().at(0);
  EXPECT_EQ(take.staging, stagingPath());
  path.replace(path.size() - 4, 4, ".recovered-" + takeID + ".mp4");
  EXPECT_EQ(take.path, path);
  EXPECT_EQ(take.left, "");
  EXPECT_TRUE(recover().empty());
  EXPECT_EQ(decodeErrors(path), "");
  const Event movie = probe(path);
  EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);
  EXPECT_EQ(movie["nb_frames"], std::to_string(take.frames));
  EXPECT_NEAR(movie["duration_ts"].get<double>() / 60000, take.duration, 1e-4);
  EXPECT_GE(static_cast<int>(take.frames), std::max(frames, 30));
  EXPECT_THROW(client::recoverTakes(folder / "nowhere", helperProgram()), std::runtime_error);
}

struct Disk : HelperTest {
  void TearDown() override {
    umount2(place.c_str(), MNT_DETACH);
    HelperTest::TearDown();
  }
  std::filesystem::path place;
};

TEST_F(Disk, AFailureEndsTheTakeAndNothingElse) {
  std::mt19937 random(1);
  std::vector<Pixels> noise(2, Pixels(FrameSize{640, 360}.rgbaBytes()));
  for (Pixels& picture : noise)
    std::ranges::generate(picture, [&] { return static_cast<std::uint8_t>(random()); });
  place = folder / "place";
  std::filesystem::create_directory(place);
  start();
  const Watcher watcher(connectClient());
  const auto expectFailure = [&](const char* reason) {
    turnTo(place / "take.mp4");
    startTake({{"resolution", "1920x1080"}, {"target_fps", 60}});
    feedPaced(120, 60, {640, 360}, noise);
    EXPECT_EQ(waitForTake("failed")["error"], reason);
    EXPECT_TRUE(std::filesystem::is_empty(place));
  };
  const auto expectTake = [&](const std::filesystem::path& file) {
    const int before = watcher.frames();
    turnTo(file);
    startTake();
    feedPaced(30);
    saveTake();
    EXPECT_GT(watcher.frames(), before);
    std::filesystem::remove(path);
  };
  path = place / "take.mp4";
  startTake();
  feedPaced(5);
  waitForTake("recording");
  std::filesystem::remove_all(place);
  feedPaced(90);
  EXPECT_EQ(waitForTake("failed")["error"], "No such file or directory");
  expectTake(folder / "elsewhere.mp4");
  std::filesystem::create_directory(place);
  rlimit usual{};
  const rlimit little{1000, RLIM_INFINITY};
  ASSERT_EQ(prlimit(helper->pid(), RLIMIT_FSIZE, &little, &usual), 0);
  expectFailure("File too large");
  ASSERT_EQ(prlimit(helper->pid(), RLIMIT_FSIZE, &usual, nullptr), 0);
  expectTake(place / "take.mp4");
  for (const auto& [reason, flags, options] :
       {std::tuple{"No space left on device", 0UL, "size=64k"},
        {"Read-only file system", MS_RDONLY, ""}}) {
    if (mount("tmpfs", place.c_str(), "tmpfs", flags, options) != 0) GTEST_SKIP() << "cannot mount";
    expectFailure(reason);
    expectTake(folder / "elsewhere.mp4");
    umount2(place.c_str(), MNT_DETACH);
    expectTake(place / "take.mp4");
  }
}

}  // namespace
}  // namespace lumora::tests
