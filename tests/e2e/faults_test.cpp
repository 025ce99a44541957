// The real helper on a machine whose calls fail, one at a time, and whose power goes.

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/e2e/helper_fixture.h"
#include "tests/faults/disk_log.h"

namespace lumora::tests {
namespace {

using Bytes = Pixels;

struct Faults : HelperTest {
#if defined(__SANITIZE_THREAD__)
  void SetUp() override { GTEST_SKIP() << "nothing can be loaded in front of this sanitizer"; }
#endif
  bool startWith(const std::string& faults, std::map<std::string, std::string> more = {}) {
    std::filesystem::remove(hitPath());
    more.insert({{"LD_PRELOAD", LUMORA_FAULTS},
                 {"LUMORA_FAULT", faults},
                 {"LUMORA_FAULT_HIT", hitPath()},
                 {"TAVO_H264_ENCODER", "software"},
                 {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"}});
    helper = std::make_unique<HelperProcess>(
        client::LaunchOptions{helperProgram(), token, {}, std::move(more)});
    startError.clear();
    while (const auto event = helper->nextEvent(20)) {
      if (event->at("type") == "error") startError = event->at("message");
      if (event->at("type") != "ready") continue;
      port = event->at("port");
      return true;
    }
    return false;
  }
  // Nothing comes between a program and a libavcodec that is linked into it.
  static bool canFailCodec() { return std::getenv("LUMORA_HELPER") == nullptr; }
  void feedUntilHit() {
    for (const double patience = uptime() + 20; !std::filesystem::exists(hitPath());) {
      ASSERT_LT(uptime(), patience);
      feedAll();
    }
  }
  const Event quick = {{"resolution", "640x360"}, {"target_fps", 60}};
  std::string startError;
  std::string hitPath() const { return folder / "hit"; }

  // How a short take beside a client went, and the helper with it.
  struct Outcome {
    std::set<std::string> states;  // of the take
    std::string saved;             // path
    std::string error;             // of the helper
    std::string told;              // all of its events
    client::Exited exit;
  };

  Outcome run(const std::string& faults, bool withAnother) {
    lastID = 0;
    Outcome outcome;
    if (startWith(faults)) {
      std::unique_ptr<client::StreamClient> viewer;
      try {
        viewer = connect();
        viewer->sayHello(token);
      } catch (const std::exception&) {  // its listener may be gone
      }
      takeOne(outcome);
      if (withAnother && std::filesystem::exists(hitPath())) expectAnother(outcome);
    }
    if (!startError.empty()) outcome.error = startError;
    helper->closeInput();
    const double patience = uptime() + 20;
    while (uptime() < patience && listen(outcome, 20)) continue;
    outcome.exit = helper->wait(20).value_or(client::Exited{.status = -1});
    helper.reset();
    return outcome;
  }
  void takeOne(Outcome& outcome) {
    startTake(quick);
    feedAll();
    stopTake();
    const double patience = uptime() + 20;
    while (!hasEnded(outcome) && uptime() < patience && listen(outcome, 3)) continue;
  }
  // What went wrong once costs the next take nothing, unless it cost the process.
  void expectAnother(Outcome& first) {
    const auto firstTake = std::pair(takeID, path);
    turnTo(folder / "another.mp4");
    Outcome next;
    takeOne(next);
    std::tie(takeID, path) = firstTake;
    first.error += next.error;
    const bool hadEnded = next.told.empty();
    EXPECT_TRUE(hadEnded || !next.saved.empty() || !first.error.empty()) << first.told << next.told;
  }
  static bool hasEnded(const Outcome& outcome) {
    return outcome.states.contains("saved") || outcome.states.contains("failed");
  }
  bool listen(Outcome& outcome, double seconds) {
    const auto event = helper->nextEvent(seconds);
    if (!event) return false;
    outcome.told += event->dump() + "\n";
    if (event->at("type") == "error") outcome.error = event->at("message");
    if (event->at("type") != "recording" || event->at("id") != takeID) return true;
    if (event->at("state") == "starting") outcome.states.clear();  // of a take before
    outcome.states.insert(event->at("state"));
    if (event->at("state") == "saved") outcome.saved = event->at("path");
    return true;
  }
  void feedAll() {
    const Pixels pixels = quarters({64, 36}, {200, 0, 0}, {0, 200, 0}, {0, 0, 200}, {90, 90, 90});
    for (int i = 0; i < 6; ++i) {
      if (!helper->copyFrame({64, 36}, ++lastID, pixels)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  // Whatever failed: a status of ours with its reason, one end of the take, and no lost movie.
  void judge(const Outcome& outcome, const std::string& kind) {
    const auto& states = outcome.states;
    EXPECT_EQ(outcome.exit.signal, 0);
    EXPECT_TRUE(outcome.exit.status == 0 || outcome.exit.status == 1) << outcome.exit.status;
    EXPECT_FALSE(states.contains("saved") && states.contains("failed"));
    // A library may give up for want of memory; nothing of ours does, for want of anything.
    EXPECT_TRUE(outcome.error != "unexpected failure" || kind == "malloc");
    if (kind != "write") {  // whose lines may be lost
      EXPECT_EQ(outcome.exit.status == 0, outcome.error.empty()) << outcome.error;
      EXPECT_TRUE(states.empty() || hasEnded(outcome) || outcome.error == "unexpected failure")
          << outcome.told;
    }
    EXPECT_TRUE(!states.contains("failed") || kind == "unlink" ||
                !std::filesystem::exists(stagingPath()));
    EXPECT_EQ(std::filesystem::exists(path) ? decodeErrors(path) : "", "");
    EXPECT_EQ(outcome.saved.empty() ? "" : decodeErrors(outcome.saved), "");
  }
};

// Calls that come often are not all tried: every one of the first, then ever fewer.
long nextTried(long nth) { return nth < LUMORA_FAULTS_TRIED ? nth + 1 : nth + nth / 8 + 1; }

TEST_F(Faults, WhicheverCallFailsEveryRunEndsWellAndNoMovieIsLost) {
  const std::string noRename = "renameat2:0:22,";  // as on file systems that know no such move
  const std::string noRoom = "fallocate:0:95,";    // nor how to reserve room
  const std::string recovered = path.substr(0, path.size() - 4) + ".recovered-" + takeID + ".mp4";
  struct Kind {
    std::string call;
    std::string before = "";  // what fails anyway
    std::string saved;        // without the call's failure
  };
  std::vector<Kind> kinds = {
      {"write", noRoom, path}, {"link", noRename, path}, {"unlink", noRename, path}};
#ifndef LUMORA_SANITIZED  // a sanitizer looks at memory through pipes
  kinds.insert(kinds.end(), {{"malloc", "", path},
                             {"malloc", "fdatasync:1,", ""},
                             {"malloc", "renameat2:1:17,", recovered},
                             {"pipe", "", path}});
#endif
  std::istringstream others(
      "open read pwrite fdatasync fsync renameat2 ftruncate fallocate pthread_create socket bind "
      "listen accept recv sendmsg epoll_ctl epoll_create1 eventfd timerfd_create timerfd_settime "
      "close");
  for (std::string call; others >> call;) kinds.push_back({call, "", path});
  if (canFailCodec()) kinds.push_back({"avcodec_send_frame", "", path});
  for (const auto& [call, before, saved] : kinds) {
    long nth = 1;
    for (bool hit = true; hit; nth = nextTried(nth)) {
      SCOPED_TRACE(before + call + " " + std::to_string(nth));
      const Outcome outcome = run(before + call + ":" + std::to_string(nth), !saved.empty());
      hit = std::filesystem::exists(hitPath());
      judge(outcome, call);
      if (!hit || call == "unlink") {
        EXPECT_EQ(outcome.saved, saved) << outcome.told;
      }
      // The first sync is of the staging file's name, the second of the movie's.
      EXPECT_TRUE(call != "fsync" || !hit || outcome.saved.empty() == (nth == 1));
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
    }
    EXPECT_GT(nth, nextTried(1)) << call << " never occurs";
  }
}

#ifndef LUMORA_SANITIZED  // its heap is not ours to fail
// From the third fragment on no allocation succeeds, on no thread.
TEST_F(Faults, WithoutAnyMemoryItEndsWithAStatusOfOursAndTheMovieStays) {
  ASSERT_TRUE(startWith("fallocate:3:95,malloc:0"));
  startTake(quick);
  const double patience = uptime() + 20;
  while (helper->takesInput() && uptime() < patience) feedAll();
  EXPECT_EQ(exitCode(), 1);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_GT(countFrames(stagingPath()), 20);
}
#endif

TEST_F(Faults, AFileThatIsStillToBeRemovedTakesNoOtherWithIt) {
  ASSERT_TRUE(startWith("fdatasync:1,unlink:1:-6"));
  const auto takeOne = [this] {
    startTake(quick);
    for (Outcome outcome; listen(outcome, 5);) {
      feedAll();
      if (outcome.states.contains("recording")) stopTake();
      if (outcome.states.contains("starting") && hasEnded(outcome)) return outcome.saved;
    }
    return std::string("no end");
  };
  EXPECT_EQ(takeOne(), "");  // said after a second, while the removal takes six
  ASSERT_TRUE(std::filesystem::remove(stagingPath()));
  path = folder / "." / std::filesystem::path(path).filename();
  EXPECT_EQ(takeOne(), "");  // its file would be removed, whatever its folder is called
  std::string saved;
  for (const double patience = uptime() + 20; saved.empty() && uptime() < patience;) {
    saved = takeOne();
  }
  EXPECT_EQ(saved, path);
  EXPECT_EQ(decodeErrors(path), "");
}

// The one thing left that can end it is the watchdog, whose signal its parent had blocked.
TEST_F(Faults, AHangingEncoderAndABlockedAlarmDoNotKeepTheProcess) {
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

TEST_F(Faults, ADriverThatDoesNotAnswerCostsNoFrame) {
  if (!canFailCodec()) GTEST_SKIP();
  ASSERT_TRUE(startWith("h264_nvenc:0:-30", {{"TAVO_H264_ENCODER", "auto"}}));
  const Watcher watcher(connectClient());
  const Event saved = take(10, 10);
  EXPECT_TRUE(std::filesystem::exists(hitPath())) << "no such encoder in this libavcodec";
  EXPECT_EQ(saved.at("frames"), 10);
  EXPECT_EQ(finish(), 0);
}

TEST_F(Faults, ADiskThatHangsStopsNeitherThePreviewNorTheEnd) {
  ASSERT_TRUE(startWith("fdatasync:2:-30"));
  startTake();
  feedUntilHit();
  const auto viewer = connectClient();
  EXPECT_GE(stream(*viewer, {64, 36}, plain({64, 36}, {9, 9, 9}), 10).size(), 10u);
  // The end waits for the disk, but not for longer than the two seconds it has.
  const double before = uptime();
  EXPECT_EQ(finish(), 0);
  EXPECT_GE(uptime() - before, 1.9);
  EXPECT_EQ(decodeErrors(stagingPath()), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

// A file as a disk holds it: what was synced, and what was not and may or may not be there.
struct DiskContents {
  Bytes durable;
  std::vector<std::pair<std::size_t, Bytes>> pending;  // offset, bytes
  bool named = false;

  void apply(const DiskLogEntry& entry, Bytes bytes) {
    using enum DiskLogEntry::Kind;
    if (entry.kind == written) pending.emplace_back(entry.offset, std::move(bytes));
    if (entry.kind == namesSynced) named = true;
    // Room is given back, and nothing else.
    EXPECT_TRUE(entry.kind != truncated || entry.offset == withAll().size());
    if (entry.kind != synced) return;
    durable = withAll();
    pending.clear();
  }
  Bytes withAll() const { return with(0, pending.size()); }
  // With the pending writes from `first` to before `last`, or with those before `at` and that one,
  // of which only whole sectors have come: what is missing of a file is zeros.
  Bytes with(std::size_t first, std::size_t last) const {
    Bytes file = durable;
    for (std::size_t i = first; i < last; ++i) put(file, i, pending[i].second.size());
    return file;
  }
  Bytes torn(std::size_t at, std::size_t sectors) const {
    Bytes file = with(0, at);
    const auto& [offset, bytes] = pending[at];
    put(file, at, std::min((offset / 512 + sectors) * 512 - offset, bytes.size()));
    return file;
  }

 private:
  void put(Bytes& file, std::size_t write, std::size_t count) const {
    const auto& [offset, bytes] = pending[write];
    file.resize(std::max(file.size(), offset + bytes.size()));
    std::copy_n(bytes.begin(), count, file.data() + offset);
  }
};

std::vector<std::pair<DiskLogEntry, Bytes>> readLog(const std::string& path) {
  std::vector<std::pair<DiskLogEntry, Bytes>> entries;
  std::ifstream file(path, std::ios::binary);
  DiskLogEntry entry{};
  while (file.read(reinterpret_cast<char*>(&entry), sizeof entry)) {
    Bytes bytes(entry.kind == DiskLogEntry::written ? entry.size : 0);
    file.read(reinterpret_cast<char*>(bytes.data()), std::ssize(bytes));
    entries.emplace_back(entry, std::move(bytes));
  }
  return entries;
}

TEST_F(Faults, WheneverThePowerGoesAtMostASecondIsMissingAndNothingOfWhatWasSaved) {
  constexpr int frames = 120;
  const std::string place = folder / "place";
  const std::string log = folder / "log";
  std::filesystem::create_directory(place);
  path = place + "/take.mp4";
  ASSERT_TRUE(startWith("", {{"LUMORA_DISK_LOG", log}, {"LUMORA_DISK_FOLDER", place}}));
  startTake({{"resolution", "640x360"}, {"target_fps", 60}, {"cadence", "steady"}});
  feedPaced(frames, 60, {64, 36});
  const int all = saveTake()["frames"];
  EXPECT_EQ(finish(), 0);

  // What half a second holds at most. One fragment may be gathering, one be on its way.
  constexpr int fragment = 32;
  const auto framesOf = [&](const Bytes& file) {
    const std::string cut = folder / "cut.mp4";
    std::ofstream(cut, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), std::ssize(file));
    return countFrames(cut);
  };
  DiskContents disk;
  int tried = 0;
  const auto expect = [&](const Bytes& file, int issued, const std::string& what) {
    ++tried;
    EXPECT_GE(framesOf(file) + fragment, issued) << what;
  };
  const auto entries = readLog(log);
  for (const auto& [entry, bytes] : entries) {
    disk.apply(entry, bytes);
    const std::size_t writes = disk.pending.size();
    const int issued = framesOf(disk.withAll());
    SCOPED_TRACE(std::to_string(entry.kind) + " at " + std::to_string(entry.offset));
    EXPECT_TRUE(disk.named || issued <= fragment);
    expect(disk.durable, issued, "nothing more");
    for (std::size_t i = 0; i < writes; ++i) {
      expect(disk.with(0, i), issued, "the first");
      expect(disk.with(i + 1, writes), issued, "the last");
      const std::size_t sectors = disk.pending[i].second.size() / 512 + 1;
      for (std::size_t n = 1; n <= sectors; n += 1 + sectors / 4)
        expect(disk.torn(i, n), issued, "torn at sector " + std::to_string(n));
    }
  }
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries.back().first.kind, DiskLogEntry::namesSynced);  // of the last name
  EXPECT_EQ(framesOf(disk.durable), all);
  EXPECT_GE(all, frames - 3);
  EXPECT_GT(tried, 60);
}

}  // namespace
}  // namespace lumora::tests
