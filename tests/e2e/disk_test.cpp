// Takes on disks that refuse, fill up, vanish or hang.

#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <fstream>
#include <random>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

// A file system of 64 KiB on a folder, gone with this object.
class SmallDisk {
 public:
  explicit SmallDisk(std::string on) : folder_(std::move(on)) {
    std::filesystem::create_directory(folder_);
    mounted_ = mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=64k") == 0;
  }
  ~SmallDisk() {
    if (mounted_) umount2(folder_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool isMounted() const { return mounted_; }

 private:
  std::string folder_;
  bool mounted_ = false;
};

// Holds one thread of a child, by its name, as a disk that does not answer would hold it.
class HeldThread {
 public:
  HeldThread(pid_t process, const std::string& name) {
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      std::string found;
      std::getline(std::ifstream(task.path() / "comm"), found);
      if (found == name) thread_ = std::stoi(task.path().filename());
    }
    held_ = thread_ > 0 && ptrace(PTRACE_SEIZE, thread_, nullptr, nullptr) == 0 &&
            ptrace(PTRACE_INTERRUPT, thread_, nullptr, nullptr) == 0 &&
            waitpid(thread_, nullptr, __WALL) == thread_;
    // A process with a held thread is over only once that thread's end was waited for, too.
    if (held_) reaper_ = std::jthread([this] { waitpid(thread_, nullptr, __WALL); });
  }
  ~HeldThread() {
    if (held_) ptrace(PTRACE_DETACH, thread_, nullptr, nullptr);
  }
  HeldThread(const HeldThread&) = delete;
  HeldThread& operator=(const HeldThread&) = delete;
  bool isHeld() const { return held_; }

 private:
  pid_t thread_ = -1;
  bool held_ = false;
  std::jthread reaper_;
};

struct Disk : TakeTest {
  void SetUp() override {
    TakeTest::SetUp();
    place = folder / "place";
    std::filesystem::create_directory(place);
    path = place / "take.mp4";
  }
  // The preview of frames fed from now on still reaches its client.
  void expectPreviewGoesOn() {
    const auto viewer = connectClient();
    EXPECT_GE(stream(*viewer, {640, 360}, plain({640, 360}, {9, 9, 9}), 10).size(), 10u);
  }

  std::filesystem::path place;
};

TEST_F(Disk, AFullOneFailsTheTakeAndThePreviewGoesOn) {
  const SmallDisk disk(place);
  if (!disk.isMounted()) GTEST_SKIP() << "cannot mount";
  std::array<Pixels, 2> noise;
  std::mt19937 random(1);
  for (auto& picture : noise) {
    picture = Pixels(FrameSize{640, 360}.bytes());
    for (auto& byte : picture) byte = static_cast<std::uint8_t>(random());
  }
  start();
  const Watcher watcher(connectClient());
  startTake({{"resolution", "1920x1080"}, {"target_fps", 60}});
  feedPaced(120, 60, {640, 360}, noise);
  EXPECT_EQ(waitForTake("failed")["error"], "No space left on device");
  EXPECT_TRUE(std::filesystem::is_empty(place));
  const int before = watcher.frames();
  turnTo(folder / "elsewhere.mp4");
  take(20, 60);
  EXPECT_GT(watcher.frames(), before);
}

TEST_F(Disk, ARemovedFolderFailsTheTakeWithTheNextFragment) {
  start();
  startTake();
  feedPaced(5, 60);
  waitForTake("recording");
  std::filesystem::remove_all(place);
  feedPaced(90, 60);
  EXPECT_EQ(waitForTake("failed")["error"], "No such file or directory");
  turnTo(folder / "elsewhere.mp4");
  take(20, 60);
}

TEST_F(Disk, OneThatHangsStopsNeitherThePreviewNorTheEnd) {
  // The search for leaks can't look into a thread that somebody else holds.
  start({}, {{"ASAN_OPTIONS", "detect_leaks=0"}});
  startTake();
  feedPaced(60, 60);
  waitForTake("recording");
  const HeldThread disk(helper->pid(), "lumora.disk");
  if (!disk.isHeld()) GTEST_SKIP() << "cannot hold a thread";
  expectPreviewGoesOn();
  // The end waits for the disk, but not for longer than the two seconds it has.
  const double before = uptime();
  EXPECT_EQ(finish(), 0);
  EXPECT_GE(uptime() - before, 1.9);
  // What had reached the disk is a movie.
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace lumora::tests
