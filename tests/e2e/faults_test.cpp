// The real helper while its calls fail, one at a time, and when the power fails.

#include <lumora/recover.h>

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/e2e/helper_fixture.h"
#include "tests/faults/disk_log.h"

namespace lumora::tests {
namespace {

constexpr FrameSize tiny{64, 36};

// A file on a disk: what was synced, and the writes after that, each of which may get lost.
struct DiskContents {
  Pixels durable;
  std::vector<std::pair<std::size_t, Pixels>> pending;  // offset, bytes

  void apply(const DiskLogEntry& entry, Pixels bytes) {
    using enum DiskLogEntry::Kind;
    if (entry.kind == written) pending.emplace_back(entry.offset, std::move(bytes));
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

// The calls of a log, each with the disk after it.
void replay(const std::string& log,
            const std::function<void(const DiskLogEntry&, const DiskContents&)>& look) {
  DiskContents disk;
  DiskLogEntry entry{};
  for (std::ifstream entries(log, std::ios::binary);
       entries.read(reinterpret_cast<char*>(&entry), sizeof entry);) {
    Pixels bytes(entry.kind == DiskLogEntry::written ? entry.size : 0);
    entries.read(reinterpret_cast<char*>(bytes.data()), std::ssize(bytes));
    disk.apply(entry, std::move(bytes));
    look(entry, disk);
  }
}

struct Faults : HelperTest {
#if defined(__SANITIZE_THREAD__)
  void SetUp() override { GTEST_SKIP() << "this sanitizer must be the first library"; }
#endif
  // False when the helper ends without being ready.
  bool startWith(const std::string& faults, Environment more = {}) {
    std::filesystem::remove(hitPath());
    more.insert(environment.begin(), environment.end());
    more.insert({{"LD_PRELOAD", LUMORA_FAULTS},
                 {"LUMORA_FAULT", faults},
                 {"LUMORA_FAULT_HIT", hitPath()},
                 {"TAVO_H264_ENCODER", "software"},
                 {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}});
    launch({}, std::move(more));
    takes = {};
    error = said = "";
    return hear([](const Event& event) { return event["type"] == "ready"; });
  }
  // Hears events until the last one. False when the output ends or 20 s have passed.
  bool hear(const HelperProcess::Wanted& isLast = [](const Event&) { return false; }) {
    for (const double patience = uptime() + 20; uptime() < patience;) {
      const auto event = helper->nextEvent(Seconds(20));
      if (!event) return false;
      said += event->dump() + "\n";
      if (event->at("type") == "ready") port = event->at("port");
      if (event->at("type") == "error") error = event->at("message");
      if (event->at("type") == "recording")
        takes[event->at("id")][event->at("state")] = event->at("path");
      if (isLast(*event)) return true;
    }
    return false;
  }
  void feedAll() {
    const Pixels pixels = quarters(tiny);
    for (int i = 0; i < frames && helper->writePixels(tiny, ++lastID, pixels); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (hasSound) feedSound(uptime() * speed);
    }
  }
  const std::map<std::string, std::string>& takeOne() {
    startTake(keys);
    feedAll();
    stopTake();
    const auto& states = takes[takeID];
    hear([&](const Event&) { return states.contains("saved") || states.contains("failed"); });
    return states;
  }
  // A short take beside a client. A call that failed once must not fail the take after that.
  client::Exited run(const std::string& faults, bool withAnother) {
    if (startWith(faults)) {
      std::unique_ptr<client::StreamClient> viewer;
      try {
        viewer = connect();
        viewer->sayHello(token);
      } catch (const std::exception&) {  // its listener may be gone
      }
      takeOne();
      if (withAnother && hasHit()) {
        const auto first = std::pair(takeID, path);
        turnTo(folder / "another.mp4");
        const auto& states = takeOne();
        EXPECT_TRUE(states.empty() || states.contains("saved") || error != "") << said;
        std::tie(takeID, path) = first;
      }
    }
    helper->closeInput();
    hear();
    const auto exit = helper->wait(Seconds(20)).value_or(client::Exited{.status = -1});
    helper.reset();
    return exit;
  }
  // Makes each call of a kind fail, one in each run, and calls `look`. Of calls that come often,
  // each of the first is tried, then ever fewer: with sound fewer than without, which is tried,
  // too.
  void sweep(const std::string& before, const std::string& call, bool withAnother,
             const std::function<void(const client::Exited&, long nth)>& look) {
    const long all = sanitized ? 2 : hasSound ? 8 : 40, divisor = hasSound ? 3 : 8;
    const auto next = [&](long nth) { return nth + 1 + (nth < all ? 0 : nth / divisor); };
    long nth = 1;
    for (bool hit = true; hit; nth = next(nth)) {
      SCOPED_TRACE(before + call + " " + std::to_string(nth));
      const auto exit = run(before + call + ":" + std::to_string(nth), withAnother);
      hit = hasHit();
      look(exit, nth);
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
    }
    EXPECT_GT(nth, next(1)) << call << " never occurs";
  }
  // Whatever failed: an exit status of ours with its reason, one end of each take.
  void judge(const client::Exited& exit, const std::string& kind) {
    EXPECT_EQ(exit.signal, 0);
    EXPECT_TRUE(exit.status == 0 || exit.status == 1) << exit.status;
    // Event lines may be lost if `write` fails.
    EXPECT_TRUE(kind == "write" || (exit.status == 0) == error.empty()) << error;
    // Libraries may abort when they are out of memory. We never do.
    const bool hasAborted = error == "unexpected failure";
    EXPECT_TRUE(!hasAborted || kind == "malloc");
    for (const auto& [id, states] : takes) {
      const bool isSaved = states.contains("saved"), isFailed = states.contains("failed");
      EXPECT_FALSE(isSaved && isFailed);
      EXPECT_TRUE(states.empty() || isSaved || isFailed || hasAborted || kind == "write") << said;
      EXPECT_TRUE(!isSaved || std::filesystem::exists(states.at("saved")));
      EXPECT_TRUE(!isFailed || kind == "unlink" ||
                  !std::filesystem::exists(states.at("failed") + "." + id + ".partial"));
    }
  }
  void feedUntilHit() {
    feedUntil([this] { return hasHit(); }, tiny);
  }
  std::string recoveredPath() const {
    return path.substr(0, path.size() - 4) + ".recovered-" + takeID + ".mp4";
  }
  std::string hitPath() const { return folder / "hit"; }
  bool hasHit() const { return std::filesystem::exists(hitPath()); }
  // A libavcodec that is linked into the helper calls itself directly.
  static bool canFailCodec() { return std::getenv("LUMORA_HELPER") == nullptr; }

  Environment environment;
  Event keys = smallTake;
  int frames = 6;  // of a take
  int speed = 1;   // of the helper's clock
  bool hasSound = false;

  // What the helper has said.
  std::map<std::string, std::map<std::string, std::string>> takes;  // path by state, by id
  std::string error, said;
};

// Takes without and with sound.
struct FaultyTakes : Faults, testing::WithParamInterface<bool> {
  FaultyTakes() {
    hasSound = GetParam();
    if (!hasSound) return;
    environment["TAVO_SOUND"] = "48000x2";
    keys["sound"] = true;
  }
  // What recovery makes of a staging file that is left like this.
  Decoded recover(const Pixels& left) const {
    const auto place = folder / "left";
    std::filesystem::create_directory(place);
    const std::string file = fileOf(place / std::filesystem::path(stagingPath()).filename(), left);
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(file, now - std::chrono::minutes(2));
    const auto take = client::recoverTakes(place, helperProgram()).at(0);
    const Decoded movie = take.path.empty() ? Decoded{} : decode(take.path);
    EXPECT_EQ(static_cast<std::uint64_t>(movie.frames), take.frames) << take.left;
    std::filesystem::remove_all(place);
    return movie;
  }
};

INSTANTIATE_TEST_SUITE_P(, FaultyTakes, testing::Bool(), [](const auto& test) {
  return test.param ? "WithSound" : "WithoutSound";
});

TEST_P(FaultyTakes, ReportEveryFailingCallAndLoseNoMovie) {
  const std::string noRename = "renameat2:0:22,";  // a file system that can't rename exclusively
  const std::string noRoom = "fallocate:0:95,";    // or can't reserve room
  const std::string recovered = recoveredPath();
  // The call, what fails anyway, the path that is saved if the call does not fail.
  std::vector<std::array<std::string, 3>> kinds;
  // A sanitizer has a heap of its own, and looks at memory through pipes.
  if (!hasSound) {
    kinds = {{"write", noRoom, path}, {"link", noRename, path}, {"unlink", noRename, path}};
    if (!sanitized) {
      kinds.insert(kinds.end(), {{"malloc", "", path},
                                 {"malloc", "fdatasync:1,", ""},
                                 {"malloc", "renameat2:1:17,", recovered},
                                 {"pipe", "", path}});
    }
  } else if (!sanitized && canFailCodec()) {
    // From the take's first picture on, before its encoder of sound is opened.
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
      // The first sync is of the staging file's name, the second of the movie's.
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

// From the third fragment on, no allocation succeeds on any thread.
TEST_F(Faults, WithoutMemoryTheHelperEndsWithOneAndTheMovieStays) {
  if (sanitized) GTEST_SKIP() << "the sanitizer's heap can't fail";
  ASSERT_TRUE(startWith("fallocate:3:95,malloc:0"));
  startTake(smallTake);
  for (const double patience = uptime() + 20; helper->takesInput() && uptime() < patience;)
    feedAll();
  EXPECT_EQ(exitCode(), 1);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_GT(countFrames(stagingPath()), 20);
}

TEST_F(Faults, NoTakeGetsTheNameOfAFileThatIsStillBeingRemoved) {
  ASSERT_TRUE(startWith("fdatasync:1,unlink:1:-6"));
  const auto end = [this] {
    startTake(smallTake);
    // Not the end of the take before, which is repeated.
    helper->waitForEvent("recording",
                         [](const Event& told) { return told["state"] == "starting"; });
    feedAll();
    stopTake();
    return helper->waitForEvent("recording", [](const Event& told) {
      return told["state"] == "saved" || told["state"] == "failed";
    });
  };
  EXPECT_EQ(end()["error"], "Input/output error");  // after a second; the removal takes six
  ASSERT_TRUE(std::filesystem::remove(stagingPath()));
  path = folder / "." / std::filesystem::path(path).filename();  // another spelling
  EXPECT_EQ(end()["error"], "invalid or existing recording destination");
  for (const double patience = uptime() + 20; end()["state"] != "saved";)
    ASSERT_LT(uptime(), patience);
  EXPECT_EQ(decodeErrors(path), "");
}

TEST_F(Faults, TheWatchdogEndsAHangingEncoderThoughTheParentBlockedItsSignal) {
  if (!canFailCodec()) GTEST_SKIP();
  ASSERT_TRUE(startWith("avcodec_send_frame:20:-30"));
  const Watcher watcher(connectClient());
  feedUntilHit();
  helper->sendSignal(SIGTERM);
  EXPECT_EQ(exitCode(), 0);
}

TEST_F(Faults, AHangingDiskStopsNeitherThePreviewNorTheEnd) {
  ASSERT_TRUE(startWith("fdatasync:2:-30"));
  startTake();
  feedUntilHit();
  stream(tiny, plain(tiny, {9, 9, 9}), 10);
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

// The third sync is of the second fragment.
TEST_F(Faults, AFailedTakeNamesItsStagingFileWhenTheDiskHangs) {
  keys["on_failure"] = "keep";
  ASSERT_TRUE(startWith("fdatasync:3:-30"));
  startTake(keys);
  feedUntilHit();
  feedPaced(2, 60, {128, 72});
  const Event failed = waitForTake("failed");
  EXPECT_EQ(failed["error"], "camera recording dimensions changed during this take");
  EXPECT_EQ(failed["kept_path"], std::filesystem::path(stagingPath()).filename().string());
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_GE(countFrames(stagingPath()), failed["kept_frames"]);
  EXPECT_GT(failed["kept_frames"], 0);
}

TEST_F(Faults, AFailedTakeKeepsWhatWasOnTheDisk) {
  keys["on_failure"] = "keep";
  ASSERT_TRUE(startWith("fdatasync:3:28"));
  startTake(keys);
  feedUntilHit();
  feedPaced(30, 60, tiny);
  const Event failed = waitForTake("failed");
  EXPECT_EQ(failed["error"], "No space left on device");
  expectKept(failed);
}

// The sync of the second fragment of pictures fails. That starts a rescue, which may fail as well.
TEST_P(FaultyTakes, ThatKeepLoseNothingThatWasOnTheDiskWhateverFails) {
  if (sanitized) GTEST_SKIP() << "the clock of a sanitized helper can't run faster";
  const std::string log = folder / "log";
  environment.insert(
      {{"LUMORA_SPEED", "10"}, {"LUMORA_DISK_LOG", log}, {"LUMORA_DISK_FOLDER", folder}});
  speed = 10;
  keys["on_failure"] = "keep";
  frames = 18;
  int rescued = 0;
  const auto look = [&](const client::Exited& exit, long) {
    EXPECT_EQ(exit.signal, 0);
    Pixels atFailure;
    bool hasFailed = false;
    replay(log, [&](const DiskLogEntry& entry, const DiskContents& disk) {
      hasFailed = hasFailed || entry.kind == DiskLogEntry::failed;
      if (!hasFailed) atFailure = disk.durable;
    });
    const Decoded synced = decode(fileOf(folder / "cut.mp4", atFailure));
    Decoded left;
    for (const std::string& movie : {path, recoveredPath(), stagingPath()}) {
      if (!std::filesystem::exists(movie)) continue;
      EXPECT_EQ(decodeErrors(movie), "");
      const Decoded all = decode(movie);
      if (all.frames > left.frames) left = all;
    }
    EXPECT_GE(left.frames, synced.frames) << said;
    // A movie ends with its pictures.
    EXPECT_GT(left.sound + 0.03, std::min(synced.sound, left.pictures)) << said;
    rescued += hasFailed && synced.frames > 0 && !takes[takeID].contains("saved") ? 1 : 0;
  };
  const std::map<std::string, std::string> kinds = {
      {"", "open pwrite fdatasync fsync renameat2 ftruncate fallocate close avcodec_send_frame"},
      {hasSound ? "fdatasync:5," : "fdatasync:3,",
       "pwrite fdatasync fsync renameat2 ftruncate pthread_create malloc"}};
  for (const auto& [before, list] : kinds) {
    std::istringstream calls(list);
    std::string call;
    while (calls >> call) {
      if (call != "avcodec_send_frame" || canFailCodec()) sweep(before, call, false, look);
    }
  }
  EXPECT_GT(rescued, hasSound ? 10 : 20);
}

TEST_P(FaultyTakes, LoseAtMostASecondByAPowerCutAndNothingOnceTheyAreSaved) {
  const std::string place = folder / "place", log = folder / "log";
  std::filesystem::create_directory(place);
  path = place + "/take.mp4";
  ASSERT_TRUE(startWith("", {{"LUMORA_DISK_LOG", log}, {"LUMORA_DISK_FOLDER", place}}));
  keys["cadence"] = "steady";
  startTake(keys);
  int count = 120;
  const auto isEnough = [&] {
    if (hasSound) feedSound(uptime());
    return count-- == 0;
  };
  feedUntil(isEnough, tiny);
  const int all = saveTake()["frames"];
  EXPECT_EQ(finish(), 0);

  // A fragment has half a second at most. One may be incomplete in memory, and one in a write.
  constexpr int fragment = 32;
  const auto framesOf = [&](const Pixels& file) {
    return countFrames(fileOf(folder / "cut.mp4", file));
  };
  DiskLogEntry last{};
  Pixels left;
  replay(log, [&](const DiskLogEntry& entry, const DiskContents& disk) {
    last = entry;
    left = disk.durable;
    const std::size_t writes = disk.pending.size();
    const int issued = framesOf(disk.with(0, writes));
    SCOPED_TRACE(std::to_string(entry.kind) + " at " + std::to_string(entry.offset));
    const auto expect = [&](const Pixels& file) {
      const Decoded movie = recover(file);
      EXPECT_GE(movie.frames + fragment, issued);
      EXPECT_GE(movie.sound + (hasSound ? 0.25 : 0), hasSound ? movie.pictures : 0);
    };
    expect(disk.durable);
    for (std::size_t i = 0; i < writes; ++i) {
      expect(disk.with(0, i));
      expect(disk.with(i + 1, writes));
      const auto& [offset, written] = disk.pending[i];
      const std::size_t sectors = written.size() / 512 + 1;
      for (std::size_t n = 1; n <= sectors; n += 1 + sectors / 4)
        expect(disk.with(0, i + 1, (offset / 512 + n) * 512 - offset));
    }
  });
  EXPECT_EQ(last.kind, DiskLogEntry::namesSynced);  // of the last name
  EXPECT_EQ(framesOf(left), all);
}

}  // namespace
}  // namespace lumora::tests
