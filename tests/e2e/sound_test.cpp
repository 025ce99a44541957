// Takes with sound of a parent that flashes and beeps at the same instant. ffmpeg judges them.

#include <lumora/helper.h>
#include <lumora/recover.h>

#include <cmath>
#include <csignal>
#include <fstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

struct Sound : HelperTest {
  static constexpr double step = 0.02;  // seconds

  void SetUp() override {
    HelperTest::SetUp();
    begin();
  }
  void begin() {
    start({}, {{"TAVO_SOUND", "48000x2"}});
    heardUntil = uptime();
  }

  // Pictures and sound, captured up to this uptime: from `flash` on white and loud.
  void perform(double until) {
    const FrameSize size{320, 180};
    while (heardUntil < until - 1e-6) {
      const double now = heardUntil + step;
      std::this_thread::sleep_for(std::chrono::duration<double>(now - uptime()));
      feedSound(now, flash);
      lastID = static_cast<std::uint64_t>(std::llround(now * 1e6)) - 1;
      feed(size, plain(size, now >= flash - 1e-6 ? Rgb{255, 255, 255} : Rgb{0, 0, 0}));
    }
  }
  // When the first white picture of the movie was captured: a slow helper leaves out some.
  double firstWhite() const {
    std::ifstream log(path + ".frames.csv");
    for (std::string line; std::getline(log, line);) {
      const double captured = std::atof(line.c_str()) * 1e-6;  // its id
      if (captured >= flash - 1e-5 && line.ends_with(",written")) return captured;
    }
    return 0;
  }
  // Of each track of a movie, in seconds.
  static std::pair<double, double> durations(const std::string& file) {
    const Event streams = Event::parse(
        outputOf("ffprobe -v error -show_streams -of json " + tools::shellQuoted(file)))["streams"];
    EXPECT_EQ(streams.at(1).at("codec_name"), "aac");
    const auto duration = [&](int i) {
      return std::stod(streams.at(i).at("duration").get<std::string>());
    };
    return {duration(0), duration(1)};
  }

  double flash = 1e9;  // uptime
};

TEST_F(Sound, IsInStepWithThePicture) {
  const double from = heardUntil + 0.1;
  flash = heardUntil + 1;
  perform(from + 0.05);
  startTake({{"started_at", from}, {"sound", true}, {"frame_log", true}});
  perform(flash + 0.5);
  const Event saved = saveTake({{"stopped_at", flash + 0.4}});
  EXPECT_EQ(saved["sound_gaps"], 0);
  EXPECT_NEAR(saved["sound_missing"].get<double>(), 0, 0.001);
  const auto endOf = [this](const std::string& filter) {
    return std::stod(outputOf("ffmpeg -nostdin -i " + tools::shellQuoted(path) + " " + filter +
                              " -f null - 2>&1 | sed -n 's/.*_end: *\\([0-9.]*\\).*/\\1/p'"));
  };
  EXPECT_NEAR(endOf("-vf blackdetect=d=0.1"), firstWhite() - from, 0.01);
  EXPECT_NEAR(endOf("-af silencedetect=n=-20dB:d=0.1"), flash - from, 0.01);
  const auto [picture, sound] = durations(path);
  EXPECT_NEAR(picture, flash + 0.4 - from, 1e-4);
  EXPECT_NEAR(sound, picture, 1e-3);
}

TEST_F(Sound, ComesFromTheClientLibraryInPiecesOfAnyLength) {
  const client::SoundFormat mono{.rate = 16000, .channels = 1};
  client::Helper camera({.program = helperProgram(), .sound = mono});
  const client::Take take =
      camera.startTake({.path = path,
                        .profile = {client::TakeSize::of640x360, client::TakeRate::fps15},
                        .sound = true,
                        .soundBitRate = 64'000});
  const FrameSize size{320, 180};
  const Pixels pixels = plain(size, {9, 9, 9});
  for (int i = 0; i < 4; ++i) {
    const auto begin = client::Uptime::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    camera.writeFrame(size, client::frameID(client::Uptime::now()), pixels);
    EXPECT_TRUE(camera.writeSound(std::vector<std::int16_t>(6400, 1000), begin));
  }
  client::Take(take).stop();
  const client::Recording saved = take.waitForEnd(client::Seconds(20)).value();
  ASSERT_EQ(saved.state, client::TakeState::saved) << saved.error;
  EXPECT_LT(saved.soundMissing.value().count(), 0.2);
  EXPECT_TRUE(saved.soundGaps.has_value());
  const auto [picture, sound] = durations(path);
  EXPECT_NEAR(sound, picture, 0.01);
  client::Helper silent({.program = helperProgram()});
  EXPECT_THROW(silent.writeSound({}, client::Uptime::now()), std::invalid_argument);
  for (const client::SoundFormat wrong : {client::SoundFormat{7999, 1}, {96001, 2}, {48000, 3}})
    EXPECT_THROW(const client::Helper unwanted({.sound = wrong}), std::invalid_argument);
}

TEST_F(Sound, SurvivesAKillBesideThePicture) {
  flash = 0;
  constexpr double slowness = sanitized ? 2 : 1;
  for (const double moment : {1.1, 1.4, 1.7, 2.0}) {  // each at another place in a fragment
    SCOPED_TRACE(moment);
    startTake({{"sound", true}});
    perform(heardUntil + 0.1);
    waitForTake("recording");
    perform(heardUntil + moment * slowness);
    if (moment == 2.0) {  // while the take waits for its last sound
      stopTake({{"stopped_at", uptime() + 0.04}});
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    helper->sendSignal(SIGKILL);
    exitCode();
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(stagingPath(), now - std::chrono::minutes(2));
    const auto take = client::recoverTakes(folder, helperProgram()).at(0);
    EXPECT_EQ(decodeErrors(take.path), "");
    const auto [picture, sound] = durations(take.path);
    EXPECT_GT(picture, (moment - 1) * slowness);
    EXPECT_GT(sound, picture - 0.25);
    std::filesystem::remove(take.path);
    begin();
  }
}

}  // namespace
}  // namespace lumora::tests
