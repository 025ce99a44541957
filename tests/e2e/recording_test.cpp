// Records takes on real disks: timing, profiles, endings, crashes. In some tests the disk fails.
// ffprobe and ffmpeg check the movies.

#include <gmock/gmock.h>
#include <lumora/recover.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>
#include <random>
#include <sstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Recording = HelperTest;

// Two pictures of 640 × 360 that no encoder can compress well.
std::vector<Pixels> noise() {
  std::mt19937 random(1);
  std::vector<Pixels> pictures(2, Pixels(FrameSize{640, 360}.rgbaBytes()));
  for (Pixels& picture : pictures)
    std::ranges::generate(picture, [&] { return static_cast<std::uint8_t>(random()); });
  return pictures;
}

TEST_F(Recording, LastsExactlyFromStartToStopAtEverySize) {
  for (const auto& [size, cameraRate] :
       {std::pair{FrameSize{640, 360}, 24}, {{1080, 720}, 60}, {{1920, 1080}, 50}}) {
    start();
    for (const char* file : {"first.mp4", "second.mp4"}) {  // the second reuses the first's encoder
      turnTo(folder / file);
      const double from = uptime();
      startTake({{"started_at", from},
                 {"resolution", text(size)},
                 {"target_fps", 30},
                 {"on_failure", "keep"}});
      feedPaced(cameraRate * 5 / 6, cameraRate);
      const Event saved = saveTake({{"stopped_at", from + 0.7}});
      expectKeys(saved, {{"path", path}, {"error", ""}, {"width", size.width}});
      const Event movie = probe(path);
      expectKeys(movie, {{"codec_name", "h264"}, {"profile", "High"}, {"time_base", "1/60000"}});
      expectKeys(movie, {{"width", size.width}, {"height", size.height}});
      EXPECT_NEAR(movie["duration_ts"].get<double>(), 0.7 * 60000, 1);
      EXPECT_NEAR(saved["duration"].get<double>(), 0.7, 1e-4);
      const int frames = std::stoi(movie["nb_read_frames"].get<std::string>());
      EXPECT_LE(frames, 22);  // 0.7 s at 30 frames a second
      EXPECT_GE(frames, LUMORA_SANITIZED ? 2 : 10);
      EXPECT_GE(saved["frames"], frames);  // also counts frames after the stop
      EXPECT_EQ(saved["frames_in_movie"], frames);
      EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);
      std::filesystem::remove(path);
      EXPECT_TRUE(std::filesystem::is_empty(folder));
    }
  }
}

TEST_F(Recording, IsSavedHoweverTheHelperIsEnded) {
  const auto send = [this](int signal) { return [this, signal] { helper->sendSignal(signal); }; };
  const auto closeInput = [this] { helper->closeInput(); };
  const auto closeOutput = [this] { helper->closeOutput(); };
  const auto closeBoth = [&] { closeOutput(), closeInput(); };
  const std::function<void()> endings[] = {send(SIGTERM), send(SIGINT), send(SIGHUP),
                                           closeInput,    closeOutput,  closeBoth};
  for (const auto& end : endings) {
    start();
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

TEST_F(Recording, IsRotatedByPlayersAndHasTheRequestedBitRate) {
  start();
  const auto& [red, green, blue, grey] = usualColours;
  const std::tuple<int, FrameSize, Quarters> turns[] = {
      {90, {360, 640}, {blue, red, grey, green}},
      {180, {640, 360}, {grey, blue, green, red}},
      {270, {360, 640}, {green, grey, red, blue}}};
  Event keys = smallTake;
  for (const auto& [rotation, size, colours] : turns) {
    turnTo(folder / (std::to_string(rotation) + ".mp4"));
    keys["rotation"] = rotation;
    startTake(keys);
    feedPaced(20);
    saveTake();
    expectQuarters(path, size, size, colours);
  }
  for (const int rate : {12'000'000, 1'000'000}) {
    turnTo(folder / "noise.mp4");
    keys["bit_rate"] = rate;
    startTake(keys);
    feedPaced(60, 60, {640, 360}, noise());
    const Event saved = saveTake();
    const auto bits = static_cast<double>(8 * std::filesystem::file_size(path));
    // In the first second the encoder also uses its rate buffer, which holds another second of
    // bits.
    EXPECT_NEAR(bits / saved["duration"].get<double>() / rate, 1.45, 0.5);
    std::filesystem::remove(path);
  }
}

TEST_F(Recording, LogsWhatBecameOfEveryFrame) {
  const Event keys = {{"frame_log", true}, {"resolution", "640x360"}, {"target_fps", 30}};
  start();
  startTake(keys);
  feedPaced(60);
  const Event saved = saveTake();
  const std::string log = tools::shellQuoted(path + ".frames.csv");
  EXPECT_EQ(outputOf("sed 1d " + log + " | cut -d, -f1"), outputOf("seq 60"));
  std::istringstream logged(outputOf("sed -n 's/.*,\\(.*\\),written$/\\1/p' " + log));
  std::istringstream times(outputOf("ffprobe -v error -show_entries packet=pts_time -of csv=p=0 " +
                                    tools::shellQuoted(path)));
  std::uint64_t written = 0;
  for (double said, time; logged >> said && times >> time; ++written) EXPECT_NEAR(said, time, 1e-5);
  EXPECT_EQ(saved["frames"], written);
  EXPECT_EQ(countFrames(path), written);
  turnTo(folder / "unlogged.mp4");
  std::filesystem::create_directory(stagingPath() + ".frames.csv");
  startTake(keys);
  feedPaced(5);
  EXPECT_EQ(saveTake()["frame_log_error"], "File exists");
}

using Recovery = HelperTest;

TEST_F(Recovery, MakesAMovieOfAKilledTakeAndLeavesARunningOne) {
  const auto recover = [this] { return client::recoverTakes(folder, helperProgram()).at(0); };
  start({}, {{"TAVO_SOUND", "48000x2"}});
  Event keys = smallTake;
  keys.update({{"rotation", 90}, {"frame_log", true}, {"sound", true}});
  startTake(keys);
  int left = 90;
  const auto isEnough = [&] { return feedSound(uptime()), left-- == 0; };
  feedUntil(isEnough, {320, 180});
  waitForTake("recording");
  EXPECT_EQ(recover().left, "it is still being recorded");
  helper->sendSignal(SIGKILL);
  exitCode();
  EXPECT_THAT(recover().left, testing::HasSubstr("less than a minute ago"));
  const auto program = std::filesystem::path(helperProgram()).replace_filename("lumora-recover");
  EXPECT_THAT(outputOf(tools::shellQuoted(program) + " " + tools::shellQuoted(folder)),
              testing::StartsWith(stagingPath() + ": keeps its name, because its recording "));
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(stagingPath(), now - std::chrono::minutes(2));
  const auto take = recover();
  EXPECT_EQ(take.staging, stagingPath());
  EXPECT_EQ(take.left, "");
  EXPECT_EQ(take.path, expectKept({{"kept_path", take.path.filename().string()},
                                   {"kept_frames", take.frames},
                                   {"kept_duration", take.duration.count()}}));
  const Decoded movie = decode(take.path);
  EXPECT_GT(movie.pictures, sanitized ? 0 : 0.4);
  EXPECT_GT(movie.sound + 0.25, movie.pictures);
  EXPECT_EQ(probe(take.path)["side_data_list"][0]["rotation"], -90);
  // 1000 bytes are about 30 lines.
  EXPECT_GT(std::filesystem::file_size(take.path.string() + ".frames.csv"), 1000u);
  EXPECT_THROW(client::recoverTakes(folder / "nowhere", helperProgram()), std::runtime_error);
}

struct Disk : HelperTest {
  void SetUp() override {
    HelperTest::SetUp();
    std::filesystem::create_directory(place = folder / "place");
  }
  void TearDown() override {
    umount2(place.c_str(), MNT_DETACH);
    HelperTest::TearDown();
  }
  const Event keeping = {{"on_failure", "keep"}, {"resolution", "640x360"}, {"target_fps", 15}};
  std::filesystem::path place;
};

TEST_F(Disk, AFailedTakeKeepsWhatItHasAndEndsNothingElse) {
  start();
  const Watcher watcher(connectClient());
  const auto pictures = noise();
  const auto begin = [&] {
    turnTo(place / "take.mp4");
    Event keys = keeping;
    keys["frame_log"] = true;
    startTake(keys);
    feedPaced(45, 15, {640, 360}, pictures);
  };
  const auto expectFailure = [&](const char* reason, bool isKept) {
    feedPaced(30, 15, {640, 360}, pictures);
    const Event failed = waitForTake("failed");
    EXPECT_EQ(failed["error"], reason);
    EXPECT_EQ(failed.contains("kept_path"), isKept);
    if (isKept) expectKept(failed);
    EXPECT_TRUE(isKept || !std::filesystem::exists(place) || std::filesystem::is_empty(place));
    const int before = watcher.frames();
    turnTo(folder / "next.mp4");
    startTake();
    feedPaced(30);
    saveTake();
    EXPECT_GT(watcher.frames(), before);
    std::filesystem::remove(path);
    return failed;
  };
  begin();
  feedPaced(5, 15, {320, 180});
  const Event whole = expectFailure("camera recording dimensions changed during this take", true);
  EXPECT_EQ(whole["kept_frames"], whole["frames"]);  // the disk has no fault
  EXPECT_GT(whole["kept_frames"], 10);
  begin();
  std::filesystem::remove_all(place);
  expectFailure("No such file or directory", false);
  std::filesystem::create_directory(place);
  rlimit before{};
  const auto limitSize = [&](rlim_t bytes, bool isKept) {
    const rlimit limit{bytes, RLIM_INFINITY};
    ASSERT_EQ(prlimit(helper->pid(), RLIMIT_FSIZE, &limit, &before), 0);
    begin();
    ASSERT_EQ(prlimit(helper->pid(), RLIMIT_FSIZE, &before, nullptr), 0);
    expectFailure("File too large", isKept);
  };
  limitSize(1000, false);
  if (mount("tmpfs", place.c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "cannot mount";
  begin();
  expectFailure("No space left on device", true);
  ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", MS_REMOUNT, "size=20m"), 0);
  // The helper reserves space ahead of what it writes, and tmpfs refuses to reserve space beyond
  // RLIMIT_FSIZE. So the take fails before the file reaches this limit, and the end of the movie
  // still fits.
  limitSize(2'000'000, true);
}

TEST_F(Disk, ATakeIsSavedWhenSpaceFallsBelowTheMinimum) {
  start();
  Event keys = keeping;
  keys["minimum_free"] = std::int64_t{1} << 53;
  turnTo(place / "none.mp4");
  startTake(keys);
  feedPaced(5);
  EXPECT_EQ(waitForTake("failed")["error"], "not enough free space");
  EXPECT_TRUE(std::filesystem::is_empty(place));
  if (mount("tmpfs", place.c_str(), "tmpfs", 0, "size=16m") != 0) GTEST_SKIP() << "cannot mount";
  keys["minimum_free"] = 10 << 20;
  turnTo(place / "some.mp4");
  startTake(keys);
  feedPaced(90, 15, {640, 360}, noise());
  const Event saved = waitForTake("saved");
  expectKeys(saved, {{"stopped_for", "minimum_free"}, {"error", ""}});
  EXPECT_EQ(decodeErrors(path), "");
  EXPECT_EQ(countFrames(path), saved["frames_in_movie"]);
  EXPECT_NEAR(static_cast<double>(std::filesystem::space(place).available), 10 << 20, 2 << 20);
}

}  // namespace
}  // namespace lumora::tests
