// Frames in memory that the parent shares: what a parent may do to it, and when.

#include <sstream>

#include "client/frame_loan.h"
#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

// A camera of the take's own size, so that the encoder reads pictures where they lie.
constexpr FrameSize camera{1080, 720};

struct SharedFrames : HelperTest {
  void SetUp() override {
    HelperTest::SetUp();
    frameMemory = client::FrameMemory::make();
    if (!frameMemory) GTEST_SKIP() << "no memory that can be sealed";
    start();
  }
  // Publishes what `render` draws into the next slot that is free.
  template <typename Render>
  void publish(const Render& render) {
    auto slot = frameMemory->acquire();
    for (const client::Deadline deadline(20); !slot; slot = frameMemory->acquire()) {
      ASSERT_GT(deadline.millisecondsLeft(), 0);
      std::this_thread::yield();
    }
    render(std::span(slot->pixels(), camera.bytes()));
    ASSERT_TRUE(helper->writeReference(camera, ++lastID, *slot->offset()));
    slot->published(lastID);
  }
  // The largest difference between two levels of light in one picture of the take.
  double mostContrast() const {
    double most = 0;
    std::istringstream told(outputOf("ffmpeg -v error -nostdin -i '" + path +
                                     "' -vf signalstats,metadata=mode=print:file=- -f null -"));
    double least = 0;
    for (std::string line; std::getline(told, line);) {
      const auto value = line.substr(line.find('=') + 1);
      if (line.starts_with("lavfi.signalstats.YMIN=")) least = std::stod(value);
      if (line.starts_with("lavfi.signalstats.YMAX="))
        most = std::max(most, std::stod(value) - least);
    }
    return most;
  }
};

void scribble(std::span<std::uint8_t> pixels) {
  std::ranges::fill(pixels.first(pixels.size() / 2), 0);
  std::ranges::fill(pixels.last(pixels.size() / 2), 255);
}

#ifdef LUMORA_OWN_HEAP
constexpr int pictures = 200;  // that a client gets
#else
constexpr int pictures = 1000;
#endif

TEST_F(SharedFrames, ASlotThatIsGivenBackIsReadNoMore) {
  const Watcher watcher(connectClient());
  startTake();
  for (int i = 0; watcher.frames() < pictures; ++i) {
    publish([i](std::span<std::uint8_t> pixels) {
      scribble(pixels);  // over what the helper has just released
      std::ranges::fill(pixels, static_cast<std::uint8_t>(i % 2 == 0 ? 60 : 190));
    });
  }
  stopTake();
  EXPECT_GT(waitForTake("saved")["frames"], 10);
  EXPECT_EQ(decodeErrors(path), "");
  EXPECT_LE(mostContrast(), 8);  // in plain pictures
}

TEST_F(SharedFrames, AParentThatWritesTooEarlyHarmsNothingButItsPictures) {
  const Watcher watcher(connectClient());
  startTake();
  std::span<std::uint8_t> last;
  for (int i = 0; watcher.frames() < pictures / 4; ++i) {
    publish([&](std::span<std::uint8_t> pixels) {
      std::ranges::fill(pixels, static_cast<std::uint8_t>(i));
      last = pixels;
    });
    scribble(last);
  }
  stopTake();
  EXPECT_GT(waitForTake("saved")["frames"], 10);
  EXPECT_EQ(decodeErrors(path), "");
}

}  // namespace
}  // namespace lumora::tests
