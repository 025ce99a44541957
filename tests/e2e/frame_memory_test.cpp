// Frames in memory that the parent shares: what a parent may do to it, and when.

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

// A camera of the take's own size, so that the take's encoder reads pictures where they lie.
constexpr FrameSize camera{1080, 720};

constexpr int pictures = sanitized ? 200 : 1000;

void scribble(std::span<std::uint8_t> pixels) {
  std::memset(pixels.data(), 0, pixels.size() / 2);  // at once, in any build
  std::memset(pixels.data() + pixels.size() / 2, 255, pixels.size() / 2);
}

struct Judgement {
  int pictures = 0;
  double mostContrast = 0;  // within one of them, in levels of light
};

// Its words would stand in the middle of the figures: that it has none is asked elsewhere.
Judgement judge(const std::string& file) {
  Judgement all;
  double darkest = 0;
  std::istringstream told(outputOf("ffmpeg -v fatal -nostdin -i " + tools::shellQuoted(file) +
                                   " -fps_mode passthrough -enc_time_base -1 "
                                   "-vf signalstats,metadata=print:file=- -f null -"));
  for (std::string line; std::getline(told, line);) {
    const auto level = line.substr(line.find('=') + 1);
    if (line.starts_with("lavfi.signalstats.YMIN=")) darkest = std::stod(level);
    if (!line.starts_with("lavfi.signalstats.YMAX=")) continue;
    ++all.pictures;
    all.mostContrast = std::max(all.mostContrast, std::stod(level) - darkest);
  }
  return all;
}

struct SharedFrames : HelperTest {
  // By the helper, of whatever it has open.
  std::uint64_t bytesRead() const {
    std::ifstream counts("/proc/" + std::to_string(helper->pid()) + "/io");
    std::string key;
    std::uint64_t value = 0;
    while (counts >> key >> value && key != "rchar:") continue;
    return value;
  }
  // Takes and streams plain pictures until a client has so many. Slots are written over the moment
  // they are free, or as soon as they are published.
  void feedAndScribble(int count, bool tooEarly) {
    transport = client::FrameTransport::memory;
    start();
    Watcher watcher(connectClient());
    startTake();
    const double patience = uptime() + 200;  // a client that was dropped gets no more
    for (int i = 0; watcher.frames() < count; ++i) {
      ASSERT_LT(uptime(), patience);
      auto frame = slots->acquire(camera);
      for (; !frame; frame = slots->acquire(camera)) ASSERT_TRUE(helper->takesInput());
      scribble(frame->pixels());
      std::ranges::fill(frame->pixels(), static_cast<std::uint8_t>(i % 2 == 0 ? 60 : 190));
      ASSERT_TRUE(helper->writeFrame(*frame, ++lastID));
      if (tooEarly) scribble(frame->pixels());
    }
    saveTake();
    EXPECT_LT(bytesRead(), 24 * lastID + camera.bytes());  // not one picture
    preview = judge(writeStream(watcher.finish()));
    movie = judge(path);
    EXPECT_GE(preview.pictures, count);
    EXPECT_GT(movie.pictures, count / 20);
  }

  Judgement preview, movie;
};

TEST_F(SharedFrames, ASlotThatIsGivenBackIsReadNoMore) {
  feedAndScribble(pictures, /*tooEarly=*/false);
  EXPECT_LE(preview.mostContrast, 8);
  EXPECT_LE(movie.mostContrast, 8);
}

TEST_F(SharedFrames, AParentThatWritesTooEarlyHarmsNothingButItsPictures) {
  feedAndScribble(pictures / 4, /*tooEarly=*/true);
  EXPECT_GT(movie.mostContrast, 8);
}

}  // namespace
}  // namespace lumora::tests
