// The real helper while its calls of libraries fail.

#include <csignal>
#include <set>
#include <sstream>

#include "tests/e2e/faults_fixture.h"

namespace lumora::tests {
namespace {

INSTANTIATE_TEST_SUITE_P(, FaultyTakes, testing::Bool(), [](const auto& test) {
  return test.param ? "WithSound" : "WithoutSound";
});

TEST_P(FaultyTakes, ReportEveryFailingCallAndLoseNoMovie) {
  const std::string noRename = "renameat2:0:22,";  // a file system without RENAME_NOREPLACE
  const std::string noRoom = "fallocate:0:95,";    // a file system that can't reserve room
  const std::string recovered = recoveredPath();
  // Three texts: the call that fails in the sweep; the faults that every run has; the path of the
  // movie if the call of the first text did not fail in the run (empty: no movie is saved).
  std::vector<std::array<std::string, 3>> kinds;
  // `malloc` and `pipe` fail only in builds without a sanitizer. A sanitizer has a heap of its own,
  // and calls `pipe` itself.
  if (!hasSound) {
    kinds = {{"write", noRoom, path}, {"link", noRename, path}, {"unlink", noRename, path}};
    if (!sanitized) {
      kinds.insert(kinds.end(), {{"malloc", "", path},
                                 {"malloc", "fdatasync:1,", ""},
                                 {"malloc", "renameat2:1:17,", recovered},
                                 {"pipe", "", path}});
    }
  } else if (!sanitized && canFailCodec()) {
    // Calls of malloc are counted only from the first encoded picture on. The sound encoder is
    // opened later, so its calls are among them.
    kinds = {{"malloc", "avcodec_send_frame:1:-0.001,", path}};
  }
  std::istringstream others(
      hasSound ? "read pwrite fdatasync fallocate pthread_create"
               : "open read pwrite fdatasync fsync renameat2 ftruncate fallocate pthread_create "
                 "socket bind listen accept recv sendmsg epoll_ctl epoll_create1 eventfd "
                 "timerfd_create timerfd_settime close");
  for (std::string call; others >> call;) kinds.push_back({call, "", path});
  if (canFailCodec()) kinds.push_back({"avcodec_send_frame", "", path});
  for (const auto& [call, before, wanted] : kinds) {
    sweep(before, call, !wanted.empty() && !hasSound, [&](const client::Exited& exit, long nth) {
      judge(exit, call);
      const bool hit = hasHit();
      const std::string saved = takes[takeID]["saved"];
      EXPECT_TRUE(saved == wanted || (hit && call != "unlink")) << saved << said;
      // The first fsync puts the staging file's name on the disk, the second the movie's name.
      EXPECT_TRUE(call != "fsync" || !hit || saved.empty() == (nth == 1));
      for (const std::string& movie : std::set{path, saved}) {
        if (!std::filesystem::exists(movie)) continue;
        EXPECT_EQ(decodeErrors(movie), "");
        const Decoded all = decode(movie);
        EXPECT_NEAR(all.sound, hasSound ? all.pictures : 0, 0.03);
      }
    });
  }
}

// `fallocate` is called for the movie's start and for each fragment. From its third call on, which
// is for the second fragment, every `malloc` fails on every thread.
TEST_F(Faults, WithoutMemoryTheHelperExitsWithOneAndTheMovieStays) {
  if (sanitized) GTEST_SKIP() << "the sanitizer's heap can't fail";
  ASSERT_TRUE(startWith("fallocate:3:95,malloc:0"));
  startTake(smallTake);
  for (const double patience = uptime() + 20; helper->takesInput() && uptime() < patience;)
    feedAll();
  EXPECT_EQ(exitCode(), 1);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_GT(countFrames(stagingPath()), 20);
}

TEST_F(Faults, NoTakeGetsTheNameOfALinkOrOfAFileThatIsStillBeingRemoved) {
  ASSERT_TRUE(startWith("fdatasync:1,unlink:1:-6"));
  const auto end = [this] {
    startTake(smallTake);
    // Skips repeats of the previous take's last event.
    helper->waitForEvent("recording",
                         [](const Event& told) { return told["state"] == "starting"; });
    feedAll();
    stopTake();
    return helper->waitForEvent("recording", [](const Event& told) {
      return told["state"] == "saved" || told["state"] == "failed";
    });
  };
  // The removal of the file takes 6 s. The helper waits 1 s for it, then reports the failed take.
  EXPECT_EQ(end()["error"], "Input/output error");
  ASSERT_TRUE(std::filesystem::remove(stagingPath()));
  path = folder / "." / std::filesystem::path(path).filename();  // another spelling
  EXPECT_EQ(end()["error"], "invalid or existing recording destination");
  for (const double patience = uptime() + 20; end()["state"] != "saved";)
    ASSERT_LT(uptime(), patience);
  EXPECT_EQ(decodeErrors(path), "");
  std::filesystem::create_symlink("nowhere.mp4", path = folder / "link.mp4");
  EXPECT_EQ(end()["error"], "invalid or existing recording destination");
}

TEST_F(Faults, AnEncoderMayKeepThePicturesThatItGets) {
  if (!canFailCodec()) GTEST_SKIP();
  ASSERT_TRUE(startWith("hold_frame:0"));
  EXPECT_TRUE(takeOne().contains("saved"));
}

TEST_F(Faults, TheWatchdogEndsAHangingHelperEvenIfSIGALRMWasBlocked) {
  if (!canFailCodec()) GTEST_SKIP();
  ASSERT_TRUE(startWith("avcodec_send_frame:20:-30"));
  const Watcher watcher(connectClient());
  feedUntil([this] { return hasHit(); }, tiny);
  helper->sendSignal(SIGTERM);
  EXPECT_EQ(exitCode(), 0);
}

TEST_F(Faults, AHangingDiskStopsNeitherThePreviewNorTheHelpersEnd) {
  ASSERT_TRUE(startWith("fdatasync:2:-30"));
  startTake();
  feedUntil([this] { return hasHit(); }, tiny);
  stream(tiny, plain(tiny, {9, 9, 9}), 10);
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace lumora::tests
