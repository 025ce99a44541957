// What is left of a take after a call has failed, and what a power cut would leave of it.

#include <lumora/recover.h>

#include <fstream>
#include <sstream>

#include "tests/e2e/faults_fixture.h"
#include "tests/faults/disk_log.h"

namespace lumora::tests {
namespace {

// A file on a disk: what was synced, and the writes after that, each of which may get lost.
struct DiskContents {
  Pixels durable;
  std::vector<std::pair<std::size_t, Pixels>> pending;  // offset, bytes

  void apply(const DiskLogEntry& entry, Pixels bytes) {
    using enum DiskLogEntry::Kind;
    if (entry.kind == written) pending.emplace_back(entry.offset, std::move(bytes));
    // A truncation only gives reserved room back: it cuts off no written byte.
    EXPECT_TRUE(entry.kind != truncated || entry.offset == with(0, pending.size()).size());
    if (entry.kind != synced) return;
    durable = with(0, pending.size());
    pending.clear();
  }
  // The file with some of the pending writes: from number `first` to the one before number `last`.
  // The last of these is cut off after `bytesOfLast` bytes. Gaps are zeros.
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

// Goes through a log, and calls `look` after each entry, with the disk as it is then.
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

// The movie that recovery makes of a staging file with these bytes.
Decoded recover(const std::filesystem::path& staging, const Pixels& left) {
  const auto place = staging.parent_path() / "left";
  std::filesystem::create_directory(place);
  const std::string file = fileOf(place / staging.filename(), left);
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(file, now - std::chrono::minutes(2));
  const auto take = client::recoverTakes(place, helperProgram()).at(0);
  const Decoded movie = take.path.empty() ? Decoded{} : decode(take.path);
  EXPECT_EQ(static_cast<std::uint64_t>(movie.frames), take.frames) << take.left;
  std::filesystem::remove_all(place);
  return movie;
}

// In some runs only one call fails. In the others two fail: first the sync of the second fragment
// with pictures, then one more call while the helper completes the file with what was synced.
TEST_P(FaultyTakes, KeepEverythingThatWasSyncedWhateverFails) {
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
    // Sound after the last picture may be missing: a movie ends with its pictures.
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

TEST_P(FaultyTakes, LoseAtMostASecondInAPowerCutAndNothingOnceSaved) {
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

  // A fragment of half a second has 32 frames at most. Each is synced before the next is written,
  // so a power cut loses at most one written fragment.
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
      const Decoded movie = recover(stagingPath(), file);
      EXPECT_GE(movie.frames + fragment, issued);
      EXPECT_TRUE(!hasSound || movie.sound + 0.25 >= movie.pictures) << movie.sound;
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
  EXPECT_EQ(last.kind, DiskLogEntry::namesSynced);  // the movie's final name is synced
  EXPECT_EQ(framesOf(left), all);
}

}  // namespace
}  // namespace lumora::tests
