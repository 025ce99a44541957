// Takes on real disks, also such that fail: timing, profiles, endings, crashes. ffprobe and ffmpeg
// judge the movies.

#include <gmock/gmock.h>
#include <lumora/recover.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <random>
#include <regex>
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

TEST_F(Recording, LastsExactlyFromStartToStopInEveryProfile) {
  for (const auto& [name, width, height, cameraRate] : {std::tuple{"640x360", 640, 360, 24},
                                                        {"1080x720", 1080, 720, 60},
                                                        {"1920x1080", 1920, 1080, 50}}) {
    start();
    for (const char* file : {"first.mp4", "second.mp4"}) {  // the second has the first's encoder
      turnTo(folder / file);
      const double from = uptime();
      startTake(
          {{"started_at", from}, {"resolution", name}, {"target_fps", 30}, {"on_failure", "keep"}});
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
      EXPECT_EQ(saved["frames_in_movie"], frames);
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

TEST_F(Recording, IsTurnedByPlayersAndHasTheBitRateThatWasAskedFor) {
  start();
  constexpr Rgb red{200, 30, 30}, green{30, 200, 30}, blue{30, 30, 200}, grey{90, 90, 90};
  // Clockwise from the top left. Its picture has red, green, grey, blue.
  const std::tuple<int, FrameSize, std::array<Rgb, 4>> turns[] = {
      {90, {360, 640}, {blue, red, green, grey}},
      {180, {640, 360}, {grey, blue, red, green}},
      {270, {360, 640}, {green, grey, blue, red}}};
  for (const auto& [rotation, size, colours] : turns) {
    turnTo(folder / (std::to_string(rotation) + ".mp4"));
    startTake({{"rotation", rotation}, {"resolution", "640x360"}, {"target_fps", 60}});
    feedPaced(20);
    saveTake();
    // ffprobe counts the other way round, from -180 to 180.
    const int told = probe(path).at("side_data_list").at(0).at("rotation");
    EXPECT_EQ((told + rotation) % 360, 0) << told;
    expectColours(path, size,
                  {{0.2, 0.2, colours[0]},
                   {0.8, 0.2, colours[1]},
                   {0.8, 0.8, colours[2]},
                   {0.2, 0.8, colours[3]}},
                  4);
  }
  std::uintmax_t usual = 0;
  for (const int rate : {12'000'000, 1'000'000}) {
    turnTo(folder / "noise.mp4");
    startTake({{"bit_rate", rate}, {"resolution", "640x360"}, {"target_fps", 60}});
    feedPaced(60, 60, {640, 360}, noise());
    saveTake();
    const auto size = std::filesystem::file_size(path);
    EXPECT_TRUE(usual == 0 || size < usual / 3) << size << " of " << usual;
    usual = size;
    std::filesystem::remove(path);
  }
}

TEST_F(Recording, LogsWhatBecameOfEveryFrame) {
  const Event keys = {{"frame_log", true}, {"resolution", "640x360"}, {"target_fps", 30}};
  start();
  startTake(keys);
  feedPaced(60);
  const Event saved = saveTake();
  std::istringstream times(outputOf("ffprobe -v error -show_entries packet=pts_time -of csv=p=0 " +
                                    tools::shellQuoted(path)));
  std::ifstream log(path + ".frames.csv");
  const std::regex form(R"((\d+),\d+\.\d{6},([\d.]*),([a-z ]+))");
  std::uint64_t id = 0;
  std::uint64_t written = 0;
  std::smatch fields;
  std::string line, time;
  for (std::getline(log, line); std::getline(log, line);) {
    ASSERT_TRUE(std::regex_match(line, fields, form)) << line;
    EXPECT_EQ(fields[1], std::to_string(++id));
    EXPECT_EQ(fields[3] == "written", fields[2] != "") << line;
    if (fields[3] != "written" || !std::getline(times, time)) continue;
    EXPECT_NEAR(std::stod(fields[2]), std::stod(time), 1e-5);
    ++written;
  }
  EXPECT_EQ(id, 60u);
  EXPECT_EQ(saved["frames"], written);
  EXPECT_EQ(countFrames(path), written);
  turnTo(folder / "existing.mp4");
  std::ofstream(path + ".frames.csv") << "somebody else's";
  startTake(keys);
  feedPaced(5);
  EXPECT_EQ(waitForTake("failed")["error"], "frame log exists");
  turnTo(folder / "unlogged.mp4");
  std::filesystem::create_directory(stagingPath() + ".frames.csv");
  startTake(keys);
  feedPaced(5);
  EXPECT_EQ(saveTake()["frame_log_error"], "File exists");
}

using Recovery = HelperTest;

TEST_F(Recovery, MakesAMovieOfAKilledTakeAndLeavesARunningOne) {
  const auto recover = [this] { return client::recoverTakes(folder, helperProgram()); };
  start();
  startTake({{"resolution", "640x360"}, {"target_fps", 60}, {"rotation", 90}, {"frame_log", true}});
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
  EXPECT_GT(std::filesystem::file_size(path + ".frames.csv"), 1000u);  // 30 lines
  EXPECT_TRUE(recover().empty());
  EXPECT_EQ(decodeErrors(path), "");
  const Event movie = probe(path);
  EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);
  EXPECT_EQ(movie["nb_frames"], std::to_string(take.frames));
  EXPECT_EQ(movie["side_data_list"][0]["rotation"], -90);
  EXPECT_NEAR(movie["duration_ts"].get<double>() / 60000, take.duration, 1e-4);
  EXPECT_GE(static_cast<int>(take.frames), std::max(frames, 30));
  EXPECT_THROW(client::recoverTakes(folder / "nowhere", helperProgram()), std::runtime_error);
}

struct Disk : HelperTest {
  void SetUp() override {
    HelperTest::SetUp();
    place = folder / "place";
    std::filesystem::create_directory(place);
  }
  void TearDown() override {
    umount2(place.c_str(), MNT_DETACH);
    HelperTest::TearDown();
  }
  const Event keeping = {{"on_failure", "keep"}, {"resolution", "640x360"}, {"target_fps", 15}};
  std::filesystem::path place;
};

TEST_F(Disk, AFailureEndsTheTakeAndNothingElse) {
  start();
  const Watcher watcher(connectClient());
  const auto expectFailure = [&](const char* reason) {
    turnTo(place / "take.mp4");
    startTake({{"resolution", "1920x1080"}, {"target_fps", 60}, {"frame_log", true}});
    feedPaced(120, 60, {640, 360}, noise());
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

TEST_F(Disk, AFailedTakeKeepsWhatItHas) {
  start();
  const auto take = [&](const std::filesystem::path& file, const std::vector<Pixels>& pictures) {
    turnTo(file);
    startTake(keeping);
    feedPaced(45, 15, {640, 360}, pictures);
  };
  // Without a fault of the disk every frame is kept.
  const auto expectWhole = [this](const char* reason) {
    const Event failed = waitForTake("failed");
    EXPECT_EQ(failed["error"], reason);
    expectKept(failed);
    EXPECT_EQ(failed["kept_frames"], failed["frames"]);
    EXPECT_GT(failed["kept_frames"], 10);
  };
  take(folder / "stop.mp4", {});
  stopTake({{"stopped_at", uptime() + 9}});
  expectWhole("recording stop time is invalid");
  take(folder / "size.mp4", {});
  feedPaced(5, 15, {320, 180});
  expectWhole("camera recording dimensions changed during this take");
  take(place / "removed.mp4", {});
  std::filesystem::remove_all(place);
  feedPaced(30, 15);
  EXPECT_FALSE(waitForTake("failed").contains("kept_path"));
  std::filesystem::create_directory(place);
  if (mount("tmpfs", place.c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "cannot mount";
  take(place / "full.mp4", noise());
  feedPaced(30, 15, {640, 360}, noise());
  const Event failed = waitForTake("failed");
  EXPECT_EQ(failed["error"], "No space left on device");
  expectKept(failed);
}

TEST_F(Disk, ATakeLeavesTheSpaceThatItWasTold) {
  start();
  Event keys = keeping;
  keys["minimum_free"] = std::int64_t{1} << 53;
  turnTo(place / "none.mp4");
  startTake(keys);
  feedPaced(5);
  waitForTake("starting");
  EXPECT_EQ(waitForTake("failed")["error"], "not enough free space");
  EXPECT_TRUE(std::filesystem::is_empty(place));
  if (mount("tmpfs", place.c_str(), "tmpfs", 0, "size=16m") != 0) GTEST_SKIP() << "cannot mount";
  keys["minimum_free"] = 10 << 20;
  turnTo(place / "some.mp4");
  startTake(keys);
  feedPaced(90, 15, {640, 360}, noise());
  const Event progress = helper->waitForEvent(
      "recording", [](const Event& event) { return event.contains("seconds_left"); });
  EXPECT_LT(progress["seconds_left"], 60);
  const Event saved = waitForTake("saved");
  expectKeys(saved, {{"stopped_for", "minimum_free"}, {"error", ""}});
  EXPECT_EQ(decodeErrors(path), "");
  EXPECT_EQ(countFrames(path), saved["frames_in_movie"]);
}

}  // namespace
}  // namespace lumora::tests
