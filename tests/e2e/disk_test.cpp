// Takes on disks that refuse, fill up or vanish.

#include <sys/mount.h>
#include <sys/resource.h>

#include <random>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

struct Disk : HelperTest {
  void SetUp() override {
    HelperTest::SetUp();
    place = folder / "place";
    std::filesystem::create_directory(place);
    path = place / "take.mp4";
  }
  void TearDown() override {
    umount2(place.c_str(), MNT_DETACH);
    HelperTest::TearDown();
  }

  std::filesystem::path place;
};

TEST_F(Disk, OneThatRefusesOrVanishesFailsTheTakeAndNothingElse) {
  std::mt19937 random(1);
  std::vector<Pixels> noise(2, Pixels(FrameSize{640, 360}.bytes()));
  for (Pixels& picture : noise)
    std::ranges::generate(picture, [&] { return static_cast<std::uint8_t>(random()); });
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
    take(30, 60);
    EXPECT_GT(watcher.frames(), before);
    std::filesystem::remove(path);
  };
  startTake();
  feedPaced(5, 60);
  waitForTake("recording");
  std::filesystem::remove_all(place);
  feedPaced(90, 60);
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
