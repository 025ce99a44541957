// Frames in memory that the parent shares: the helper must not read a slot after its release.

#include <algorithm>
#include <cstring>
#include <sstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

constexpr int pictures = sanitized ? 200 : 1000;

void scribble(std::span<std::uint8_t> pixels) {
  std::memset(pixels.data(), 0, pixels.size() / 2);
  std::memset(pixels.data() + pixels.size() / 2, 255, pixels.size() / 2);
}

struct Judgement {
  int pictures = 0;
  int mostContrast = 0;  // within one of them, in levels of brightness
};

Judgement judge(const std::string& file) {
  std::istringstream levels(outputOf("ffmpeg -v error -nostdin -i " + tools::shellQuoted(file) +
                                     " -fps_mode passthrough -enc_time_base -1"
                                     " -vf signalstats,metadata=print:file=- -f null - |"
                                     " sed -n 's/.*YM[IA][NX]=//p'"));
  Judgement all;
  for (int darkest, brightest; levels >> darkest >> brightest; ++all.pictures)
    all.mostContrast = std::max(all.mostContrast, brightest - darkest);
  return all;
}

struct SharedFrames : HelperTest {
  // Feeds plain pictures to a take and a client until the client has `count` of them. Scribbles
  // over each slot when it is free again, or already when it is published.
  void feedAndScribble(int count, bool tooEarly) {
    transport = client::FrameTransport::memory;
    start();
    Watcher watcher(connectClient());
    startTake();
    const FrameSize size{1080, 720};         // of the take, so its encoder reads pixels in the slot
    const double patience = uptime() + 200;  // a client that was dropped gets no more
    for (int i = 0; watcher.frames() < count; ++i) {
      ASSERT_LT(uptime(), patience);
      auto frame = slots->acquire(size);
      for (; !frame; frame = slots->acquire(size)) ASSERT_TRUE(helper->takesInput());
      scribble(frame->pixels());
      std::ranges::fill(frame->pixels(), static_cast<std::uint8_t>(i % 2 == 0 ? 60 : 190));
      ASSERT_TRUE(helper->writeFrame(*frame, ++lastID));
      if (tooEarly) scribble(frame->pixels());
    }
    saveTake();
    const std::string counters = "/proc/" + std::to_string(helper->pid()) + "/io";
    const std::uint64_t bytesRead = std::stoull(outputOf("sed -n 's/rchar: //p' " + counters));
    EXPECT_LT(bytesRead, 24 * lastID + size.rgbaBytes());  // no picture went through the pipe
    preview = judge(writeStream(watcher.finish()));
    movie = judge(path);
    EXPECT_GE(preview.pictures, count);
    EXPECT_GT(movie.pictures, count / 20);
  }

  Judgement preview, movie;
};

TEST_F(SharedFrames, ASlotIsNotReadAfterItsRelease) {
  feedAndScribble(pictures, /*tooEarly=*/false);
  EXPECT_LE(preview.mostContrast, 8);
  EXPECT_LE(movie.mostContrast, 8);
}

TEST_F(SharedFrames, AParentThatWritesTooEarlySpoilsOnlyItsPictures) {
  feedAndScribble(pictures / 4, /*tooEarly=*/true);
  EXPECT_GT(movie.mostContrast, 8);
}

}  // namespace
}  // namespace lumora::tests
