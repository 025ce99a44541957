// A take with sound. Its pictures flash and its sound begins at the same instant. ffmpeg judges it.

#include <cmath>
#include <fstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

struct Sound : HelperTest {
  static constexpr double step = 0.02;  // seconds

  // Feeds pictures and sound in real time until the uptime `until`. Pictures are white, and sound
  // is loud, from `flash` on.
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
  // When the first white picture in the movie was captured. A slow helper may have dropped white
  // pictures that were fed before it.
  double firstWhite() const {
    std::ifstream log(path + ".frames.csv");
    for (std::string line; std::getline(log, line);) {
      const double captured = std::atof(line.c_str()) * 1e-6;  // the frame's ID
      if (captured >= flash - 1e-5 && line.ends_with(",written")) return captured;
    }
    return 0;
  }
  double flash = 1e9;  // uptime
};

TEST_F(Sound, IsInStepWithThePicture) {
  start({}, {{"TAVO_SOUND", "48000x2"}});
  heardUntil = uptime();
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
  const double pictures = decode(path).pictures;
  EXPECT_NEAR(pictures, flash + 0.4 - from, 1e-4);
  const std::string length = "ffprobe -v error -select_streams a -show_entries stream=duration ";
  EXPECT_NEAR(std::stod(outputOf(length + "-of csv=p=0 " + tools::shellQuoted(path))), pictures,
              1e-3);
}

}  // namespace
}  // namespace lumora::tests
