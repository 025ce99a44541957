// The real helper while its calls fail, one at a time, and when the power fails.

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/e2e/helper_fixture.h"
#include "tests/faults/disk_log.h"

namespace lumora::tests {
namespace {

struct Faults : HelperTest {
#if defined(__SANITIZE_THREAD__)
  void SetUp() override { GTEST_SKIP() << "this sanitizer must be the first library"; }
#endif
  // How a short take beside a client went, and the helper with it.
  struct Outcome {
    std::set<std::string> states;  // of the take
    std::string saved;             // path
    std::string error;             // of the helper
    std::string told;              // all of its events
    bool hasEnded() const { return states.contains("saved") || states.contains("failed"); }
  };

  // False when the helper ends without being ready.
  bool startWith(const std::string& faults, std::map<std::string, std::string> more = {}) {
    std::filesystem::remove(hitPath());
    more.insert({{"LD_PRELOAD", LUMORA_FAULTS},
                 {"LUMORA_FAULT", faults},
                 {"LUMORA_FAULT_HIT", hitPath()},
                 {"TAVO_H264_ENCODER", "software"},
                 {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}});
    launch({}, std::move(more));
    for (outcome = {}; auto event = hear(20);) {
      if (event->at("type") != "ready") continue;
      port = event->at("port");
      return true;
    }
    return false;
  }
  // The next event, which goes into `outcome`.
  std::optional<Event> hear(double seconds) {
    auto event = helper->nextEvent(seconds);
    if (!event) return event;
    outcome.told += event->dump() + "\n";
    if (event->at("type") == "error") outcome.error = event->at("message");
    if (event->at("type") != "recording" || event->at("id") != takeID) return event;
    if (event->at("state") == "starting") outcome.states.clear();  // of the take before
    outcome.states.insert(event->at("state"));
    if (event->at("state") == "saved") outcome.saved = event->at("path");
    return event;
  }
  void feedAll() {
    const Pixels pixels = quarters({64, 36}, {200, 0, 0}, {0, 200, 0}, {0, 0, 200}, {90, 90, 90});
    for (int i = 0; i < 6 && helper->writePixels({64, 36}, ++lastID, pixels); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  void takeOne() {
    startTake(quick);
    feedAll();
    stopTake();
    const double patience = uptime() + 20;
    while (!outcome.hasEnded() && uptime() < patience && hear(3)) continue;
  }
  // A call that failed once does not fail the next take, unless it ended the helper.
  void expectAnother() {
    const Outcome first = std::exchange(outcome, {});
    const auto usual = std::pair(takeID, path);
    turnTo(folder / "another.mp4");
    takeOne();
    std::tie(takeID, path) = usual;
    const std::string error = first.error + outcome.error;
    EXPECT_TRUE(outcome.told.empty() || !outcome.saved.empty() || !error.empty())
        << first.told << outcome.told;
    outcome = first;
    outcome.error = error;
  }
  client::Exited run(const std::string& faults, bool withAnother) {
    if (startWith(faults)) {
      std::unique_ptr<client::StreamClient> viewer;
      try {
        viewer = connect();
        viewer->sayHello(token);
      } catch (const std::exception&) {  // its listener may be gone
      }
      takeOne();
      if (withAnother && hasHit()) expectAnother();
    }
    helper->closeInput();
    const double patience = uptime() + 20;
    while (uptime() < patience && hear(20)) continue;
    const auto exit = helper->wait(20).value_or(client::Exited{.status = -1});
    helper.reset();
    return exit;
  }
  // Whatever failed: an exit status of ours with its reason, one end of the take, no broken movie.
  void judge(const client::Exited& exit, const std::string& kind) {
    const auto& [states, saved, error, told] = outcome;
    EXPECT_EQ(exit.signal, 0);
    EXPECT_TRUE(exit.status == 0 || exit.status == 1) << exit.status;
    EXPECT_FALSE(states.contains("saved") && states.contains("failed"));
    // Libraries may abort when they are out of memory. We never do.
    EXPECT_TRUE(error != "unexpected failure" || kind == "malloc");
    if (kind != "write") {  // event lines may be lost then
      EXPECT_EQ(exit.status == 0, error.empty()) << error;
      EXPECT_TRUE(states.empty() || outcome.hasEnded() || error == "unexpected failure") << told;
    }
    EXPECT_TRUE(!states.contains("failed") || kind == "unlink" ||
                !std::filesystem::exists(stagingPath()));
    for (const std::string& movie : std::set{path, saved})
      EXPECT_EQ(std::filesystem::exists(movie) ? decodeErrors(movie) : "", "");
    EXPECT_TRUE(saved.empty() || std::filesystem::exists(saved));
  }
  void feedUntilHit() {
    feedUntil([this] { return hasHit(); }, {64, 36});
  }
  std::string hitPath() const { return folder / "hit"; }
  bool hasHit() const { return std::filesystem::exists(hitPath()); }
  // A libavcodec that is linked into the helper calls itself directly.
  static bool canFailCodec() { return std::getenv("LUMORA_HELPER") == nullptr; }

  const Event quick = {{"resolution", "640x360"}, {"target_fps", 60}};
  Outcome outcome;
};

TEST_F(Faults, EveryFailingCallIsReportedAndNoMovieIsLost) {
  const std::string noRename = "renameat2:0:22,";  // a file system that can't rename exclusively
  const std::string noRoom = "fallocate:0:95,";    // or can't reserve room
  const std::string recovered = path.substr(0, path.size() - 4) + ".recovered-" + takeID + ".mp4";
  // The call, what fails anyway, the path that is saved if the call does not fail.
  std::vector<std::tuple<std::string, std::string, std::string>> kinds = {
      {"write", noRoom, path}, {"link", noRename, path}, {"unlink", noRename, path}};
  if (!sanitized) {  // a sanitizer has a heap of its own, and looks at memory through pipes
    kinds.insert(kinds.end(), {{"malloc", "", path},
                               {"malloc", "fdatasync:1,", ""},
                               {"malloc", "renameat2:1:17,", recovered},
                               {"pipe", "", path}});
  }
  std::istringstream others(
      "open read pwrite fdatasync fsync renameat2 ftruncate fallocate pthread_create socket bind "
      "listen accept recv sendmsg epoll_ctl epoll_create1 eventfd timerfd_create timerfd_settime "
      "close");
  for (std::string call; others >> call;) kinds.push_back({call, "", path});
  if (canFailCodec()) kinds.push_back({"avcodec_send_frame", "", path});
  // Of calls that come often, each of the first is tried, then ever fewer.
  const auto next = [](long nth) { return nth + 1 + (nth < (sanitized ? 2 : 40) ? 0 : nth / 8); };
  for (const auto& [call, before, saved] : kinds) {
    long nth = 1;
    for (bool hit = true; hit; nth = next(nth)) {
      SCOPED_TRACE(before + call + " " + std::to_string(nth));
      const auto exit = run(before + call + ":" + std::to_string(nth), !saved.empty());
      hit = hasHit();
      judge(exit, call);
      if (!hit || call == "unlink") {
        EXPECT_EQ(outcome.saved, saved) << outcome.told;
      }
      // The first sync is of the staging file's name, the second of the movie's.
      EXPECT_TRUE(call != "fsync" || !hit || outcome.saved.empty() == (nth == 1));
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
    }
    EXPECT_GT(nth, next(1)) << call << " never occurs";
  }
}

// From the third fragment on, no allocation succeeds on any thread.
TEST_F(Faults, WithoutMemoryTheHelperEndsWithOneAndTheMovieStays) {
  if (sanitized) GTEST_SKIP() << "the sanitizer's heap can't fail";
  ASSERT_TRUE(startWith("fallocate:3:95,malloc:0"));
  startTake(quick);
  const double patience = uptime() + 20;
  while (helper->takesInput() && uptime() < patience) feedAll();
  EXPECT_EQ(exitCode(), 1);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_GT(countFrames(stagingPath()), 20);
}

TEST_F(Faults, NoTakeGetsTheNameOfAFileThatIsStillBeingRemoved) {
  ASSERT_TRUE(startWith("fdatasync:1,unlink:1:-6"));
  const auto savedTake = [this] {
    startTake(quick);
    for (outcome = {}; hear(5);) {
      feedAll();
      if (outcome.states.contains("recording")) stopTake();
      if (outcome.states.contains("starting") && outcome.hasEnded()) return outcome.saved;
    }
    return std::string("no end");
  };
  EXPECT_EQ(savedTake(), "");  // fails after a second, while the removal takes six
  ASSERT_TRUE(std::filesystem::remove(stagingPath()));
  path = folder / "." / std::filesystem::path(path).filename();
  EXPECT_EQ(savedTake(), "");  // the same file by another spelling
  std::string saved;
  for (const double patience = uptime() + 20; saved.empty() && uptime() < patience;)
    saved = savedTake();
  EXPECT_EQ(saved, path);
  EXPECT_EQ(decodeErrors(path), "");
}

TEST_F(Faults, TheWatchdogEndsAHangingEncoderThoughTheParentBlockedItsSignal) {
  if (!canFailCodec()) GTEST_SKIP();
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const bool started = startWith("avcodec_send_frame:20:-30");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ASSERT_TRUE(started);
  const Watcher watcher(connectClient());
  feedUntilHit();
  helper->sendSignal(SIGTERM);
  EXPECT_EQ(exitCode(), 0);
}

TEST_F(Faults, AHangingDriverCostsNoFrame) {
  if (!canFailCodec()) GTEST_SKIP();
  ASSERT_TRUE(startWith("h264_nvenc:0:-30", {{"TAVO_H264_ENCODER", "auto"}}));
  const Watcher watcher(connectClient());
  startTake();
  feedPaced(10, 10);
  EXPECT_EQ(saveTake()["frames"], 10);
  EXPECT_TRUE(hasHit()) << "no such encoder in this libavcodec";
}

TEST_F(Faults, AHangingDiskStopsNeitherThePreviewNorTheEnd) {
  ASSERT_TRUE(startWith("fdatasync:2:-30"));
  startTake();
  feedUntilHit();
  stream({64, 36}, plain({64, 36}, {9, 9, 9}), 10);
  // The end waits for the disk, for two seconds at most.
  const double before = uptime();
  EXPECT_EQ(finish(), 0);
  EXPECT_GE(uptime() - before, 1.9);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

// The third sync is of the second fragment.
TEST_F(Faults, AFailedTakeKeepsWhatWasOnTheDisk) {
  const Event keys = {{"on_failure", "keep"}, {"resolution", "640x360"}, {"target_fps", 60}};
  ASSERT_TRUE(startWith("fdatasync:3:28"));
  startTake(keys);
  feedUntilHit();
  feedPaced(30, 60, {64, 36});
  const Event failed = waitForTake("failed");
  EXPECT_EQ(failed["error"], "No space left on device");
  std::filesystem::remove(expectKept(failed));
  EXPECT_EQ(finish(), 0);

  // A disk that hangs can't complete the file.
  ASSERT_TRUE(startWith("fdatasync:3:-30"));
  startTake(keys);
  feedUntilHit();
  stopTake({{"stopped_at", 0}});
  const Event unfinished = waitForTake("failed");
  EXPECT_EQ(unfinished["error"], "recording stop time is invalid");
  EXPECT_EQ(unfinished["kept_path"], std::filesystem::path(stagingPath()).filename().string());
  EXPECT_GT(unfinished["kept_duration"], 0);
  EXPECT_GE(countFrames(stagingPath()), unfinished["kept_frames"]);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
}

// A file on a disk: what was synced, and the writes after that, each of which may get lost.
struct DiskContents {
  Pixels durable;
  std::vector<std::pair<std::size_t, Pixels>> pending;  // offset, bytes
  bool named = false;

  void apply(const DiskLogEntry& entry, Pixels bytes) {
    using enum DiskLogEntry::Kind;
    if (entry.kind == written) pending.emplace_back(entry.offset, std::move(bytes));
    if (entry.kind == namesSynced) named = true;
    // Truncating only gives room back.
    EXPECT_TRUE(entry.kind != truncated || entry.offset == with(0, pending.size()).size());
    if (entry.kind != synced) return;
    durable = with(0, pending.size());
    pending.clear();
  }
  // With the pending writes from `first` to before `last`, of the last one so many bytes. What is
  // missing of a file is zeros.
  Pixels with(std::size_t first, std::size_t last, std::size_t bytesOfLast = SIZE_MAX) const {
    Pixels file = durable;
    for (std::size_t i = first; i < last; ++i) {
      const auto& [offset, bytes] = pending[i];
      file.resize(std::max(file.size(), offset + bytes.size()));
      const std::size_t count = i + 1 < last ? bytes.size() : std::min(bytesOfLast, bytes.size());
      std::copy_n(bytes.begin(), count, file.data() + offset);
    }
    return file;
  }
};

TEST_F(Faults, APowerCutCostsAtMostASecondAndNothingOfASavedMovie) {
  constexpr int frames = 120;
  const std::string place = folder / "place", log = folder / "log";
  std::filesystem::create_directory(place);
  path = place + "/take.mp4";
  ASSERT_TRUE(startWith("", {{"LUMORA_DISK_LOG", log}, {"LUMORA_DISK_FOLDER", place}}));
  startTake({{"resolution", "640x360"}, {"target_fps", 60}, {"cadence", "steady"}});
  feedPaced(frames, 60, {64, 36});
  const int all = saveTake()["frames"];
  EXPECT_EQ(finish(), 0);

  // A fragment has half a second at most. One may be incomplete in memory, and one in a write.
  constexpr int fragment = 32;
  const auto framesOf = [cut = std::string(folder / "cut.mp4")](const Pixels& file) {
    std::ofstream(cut, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), std::ssize(file));
    return countFrames(cut);
  };
  DiskContents disk;
  DiskLogEntry entry{};
  int tried = 0;
  for (std::ifstream entries(log, std::ios::binary);
       entries.read(reinterpret_cast<char*>(&entry), sizeof entry);) {
    Pixels bytes(entry.kind == DiskLogEntry::written ? entry.size : 0);
    entries.read(reinterpret_cast<char*>(bytes.data()), std::ssize(bytes));
    disk.apply(entry, std::move(bytes));
    const std::size_t writes = disk.pending.size();
    const int issued = framesOf(disk.with(0, writes));
    SCOPED_TRACE(std::to_string(entry.kind) + " at " + std::to_string(entry.offset));
    EXPECT_TRUE(disk.named || issued <= fragment);
    const auto expect = [&](const Pixels& file, const std::string& what) {
      ++tried;
      EXPECT_GE(framesOf(file) + fragment, issued) << what;
    };
    expect(disk.durable, "no pending write");
    for (std::size_t i = 0; i < writes; ++i) {
      expect(disk.with(0, i), "the first pending writes");
      expect(disk.with(i + 1, writes), "the last pending writes");
      const std::size_t sectors = disk.pending[i].second.size() / 512 + 1;
      const std::size_t offset = disk.pending[i].first;
      for (std::size_t n = 1; n <= sectors; n += 1 + sectors / 4)
        expect(disk.with(0, i + 1, (offset / 512 + n) * 512 - offset), "part of a write");
    }
  }
  EXPECT_EQ(entry.kind, DiskLogEntry::namesSynced);  // of the last name
  EXPECT_EQ(framesOf(disk.durable), all);
  EXPECT_GE(all, frames - 3);
  EXPECT_GT(tried, 60);
}

}  // namespace
}  // namespace lumora::tests
