// The movie writer on disks that fail, hang, are full or hold gigabytes. libavformat reads the
// files that the writer leaves.

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "base/big_endian.h"
#include "mp4/hybrid_movie_writer.h"
#include "mp4/movie_disk.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"
#include "tests/unit/wait_until.h"

namespace lumora {
namespace {

// A disk in memory that can be told to fail or to hang. Of a large write it keeps only the size.
struct Disk {
  int call(const std::function<void()>& effect) {
    waitUntil([this] { return !hangs && calls != hangAt; });
    if (failAfter == 0) return ENOSPC;
    if (failAfter > 0) --failAfter;
    effect();
    ++calls;
    return 0;
  }

  Bytes bytes;
  std::size_t size = 0, largeWriteAt = 0;
  std::uint64_t reserved = 0;       // bytes that fit even on a full disk
  std::atomic<int> failAfter = -1;  // calls that still succeed; negative: all
  std::atomic<int> calls = 0;
  std::atomic<int> hangAt = -1;  // hangs after this many calls; -1: never
  std::atomic<bool> hangs = false, isFull = false, closed = false;
};

struct DiskSink final : ByteSink {
  explicit DiskSink(std::shared_ptr<Disk> on) : disk(std::move(on)) {}
  ~DiskSink() override { disk->closed = true; }
  int reserve(std::uint64_t bytes) override {
    if (disk->isFull && bytes > disk->reserved) return ENOSPC;
    disk->reserved = std::max(disk->reserved, bytes);
    return 0;
  }
  void releaseRoom() override { disk->reserved = 0; }
  int write(ByteView bytes) override {
    if (const int error = reserve(bytes.size()); error != 0) {
      disk->bytes.push_back(bytes[0]);  // as much as fits
      return error;
    }
    return disk->call([&] {
      const bool isLarge = bytes.size() >= 8 << 20;
      if (isLarge) disk->largeWriteAt = disk->size;
      if (!isLarge) disk->bytes.insert(disk->bytes.end(), bytes.begin(), bytes.end());
      disk->size += bytes.size();
      disk->reserved -= bytes.size();
    });
  }
  int overwrite(std::uint64_t offset, ByteView bytes) override {
    return disk->call([&] { std::ranges::copy(bytes, disk->bytes.data() + offset); });
  }
  int sync() override {
    return disk->call([] {});
  }
  std::uint64_t size() const override { return disk->size; }
  std::optional<std::uint64_t> freeBytes() const override { return std::nullopt; }
  std::shared_ptr<Disk> disk;
};

const AacFormat stereo = {48000, 2, 1024, {0x11, 0x90}};

struct Written {
  explicit Written(int failAfter = -1, bool sound = false) : hasSound(sound) {
    disk->failAfter = failAfter;
    if (hasSound) writer.addTrack(stereo);
    writer.startWriting(keySample()->format(), 0);
  }
  // Appends the sound up to the end of a picture, then the picture.
  bool append(bool keyframe, MovieTiming timing, std::size_t size = 20) {
    while (hasSound && packets * 1280 < timing.time + timing.duration) appendSound();
    const auto sample = keyframe ? keySample(size - 4) : deltaSample(size - 4);
    return writer.append(*sample, keyframe, timing);
  }
  void appendSound() {
    writer.append(Bytes(9, 0x11));
    ++packets;
  }
  // Appends `count` pictures of 1000 units each. The first of every 30 is a key frame.
  void fill(int count) {
    for (int i = 0; i < count; ++i) append(i % 30 == 0, {i * 1000, 1000});
  }
  WriterStatus finish(std::int64_t end) {
    std::promise<void> done;
    writer.finishWriting(end, [&] { done.set_value(); });
    done.get_future().wait();
    return writer.status();
  }
  const bool hasSound;
  std::int64_t packets = 0;  // each takes 1280 movie units
  std::shared_ptr<Disk> disk = std::make_shared<Disk>();
  HybridMovieWriter writer{std::make_unique<DiskSink>(disk), 3'800'000'000};
};

// The offset of the type field in the last box of this type.
std::size_t boxIn(const Bytes& bytes, const char* type) {
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()).rfind(type);
}

TEST(MovieFile, PadsAFragmentWhereItsHeadWouldCrossASectorOrPage) {
  const MovieTrack track{.id = 1, .picture = keySample()->format()};
  for (std::size_t count = 20; count < 60; ++count) {
    const std::vector<MovieSample> samples(count, {100, 1000, false});
    const std::size_t size =
        fragmentStart(0, 1, track, samples).size() - 8;  // without the header of `mdat`
    const std::size_t block = size <= 512 ? 512 : 4096;
    for (std::size_t offset = 3300; offset < 4100; ++offset) {
      const std::size_t padding = fragmentStart(offset, 1, track, samples).size() - 8 - size;
      const std::size_t start = offset + padding;
      ASSERT_EQ(start / block, (start + size - 1) / block) << count << " at " << offset;
      ASSERT_EQ(padding != 0, offset / block != (offset + size - 1) / block) << offset;
      ASSERT_LT(padding, block + 8);
    }
  }
  // For half a second of sound, the boxes of a fragment before its samples always fit into a
  // sector.
  const MovieTrack sound{.id = 2, .sound = {96000, 2, 1024, {0x10, 0x10}}};
  EXPECT_LE(fragmentStart(0, 1, sound, std::vector<MovieSample>(47, {100, 1024})).size(), 512 + 8);
}

TEST(MovieFile, WritesSoundAtItsTimesEvenWhileNoPictureComes) {
  Written movie(-1, true);
  movie.append(true, {0, 1000});
  while (movie.packets < 100) movie.appendSound();
  std::vector<std::int64_t> times;
  for (std::int64_t at = -1024; at < 95 * 1024; at += 1024) times.push_back(at);
  waitUntil([&] { return movie.disk->calls == 3 * 6; });  // the start and 5 fragments
  EXPECT_EQ(readMovie(movie.disk->bytes, 1).times, times);
  EXPECT_EQ(readMovie(movie.disk->bytes).times.size(), 1u);  // one picture, though none follows it
  EXPECT_EQ(movie.finish(60001), WriterStatus::completed);
  const MovieContents read = readMovie(movie.disk->bytes, 1);
  times.resize(48);
  std::vector<std::int64_t> durations(48, 1024);
  durations.back() = 48000 - 46 * 1024;
  EXPECT_EQ(read.times, times);
  EXPECT_EQ(read.durations, durations);
  EXPECT_EQ(read.duration, 48000);
  EXPECT_EQ(read.skipped, 1024u);
  EXPECT_EQ(readMovie(movie.disk->bytes).durations, std::vector<std::int64_t>{60001});
}

TEST(MovieFile, HasReservedRoomForItsTablesWhenTheDiskBecomesFull) {
  for (const bool hasSound : {false, true}) {
    Written movie(-1, hasSound);
    for (int i = 0; i < 3000; ++i)  // each duration differs from the one before
      movie.append(true, {i * 1000 + i % 2, 1000 + (i % 2 == 0 ? 1 : -1)});
    // The start of the file and the 100 fragments of each track take 3 calls each.
    waitUntil([&] { return movie.disk->calls == (hasSound ? 603 : 303); });
    movie.disk->isFull = true;
    EXPECT_EQ(movie.finish(3'000'000), WriterStatus::completed);
    EXPECT_EQ(movie.disk->reserved, 0u);
  }
}

// The disk fails after `failAfter` calls, for a while or for good.
void expectKept(int failAfter, bool isForGood, bool hasSound) {
  SCOPED_TRACE(failAfter);
  Written movie(failAfter, hasSound);
  movie.fill(61);
  // A track has three fragments, and `finishWriting` writes the last one. The start of the file
  // takes 3 calls, as does each fragment. The end of the file takes 4.
  if (failAfter >= (hasSound ? 15 : 9)) movie.finish(61000);
  waitUntil([&] { return movie.writer.error().has_value(); });
  EXPECT_EQ(movie.writer.error(), "No space left on device");
  if (!isForGood) movie.disk->failAfter = -1;
  std::promise<std::pair<MovieExtent, bool>> answer;
  movie.writer.rescue([&](MovieExtent kept, bool isComplete) {
    answer.set_value({kept, isComplete});
  });
  const auto [kept, isComplete] = answer.get_future().get();
  EXPECT_EQ(movie.writer.status(), WriterStatus::failed);
  const int fragments = std::clamp(failAfter / 3 - 1, 0, hasSound ? 6 : 3);
  const int frames = std::min((hasSound ? fragments / 2 : fragments) * 30, 61);
  EXPECT_EQ(kept.frames, frames);
  EXPECT_EQ(kept.duration, frames * 1000);
  EXPECT_EQ(isComplete, frames > 0 && !isForGood);
  if (frames == 0) return;
  const MovieContents read = readMovie(movie.disk->bytes);
  // An incomplete file may also have what was written but not synced. `kept` does not count that.
  EXPECT_GE(std::ssize(read.times), frames);
  if (!isComplete) return;
  EXPECT_EQ(read.duration, kept.duration);
  EXPECT_EQ(std::ssize(read.times), frames);
  // The sound of half a second is written before its pictures.
  constexpr std::array packets = {0, 24, 47, 48};
  const auto heard = static_cast<std::size_t>((fragments + 1) / 2);
  EXPECT_TRUE(!hasSound || std::ssize(readMovie(movie.disk->bytes, 1).times) == packets[heard]);
}

TEST(MovieFile, KeepsTheFragmentsSyncedBeforeTheDiskFailed) {
  for (const bool isForGood : {false, true}) {
    for (int failAfter = 0; failAfter < 16; ++failAfter) expectKept(failAfter, isForGood, false);
    for (int failAfter = 0; failAfter < 25; ++failAfter) expectKept(failAfter, isForGood, true);
  }
}

TEST(MovieFile, KeepsTheFragmentThatASlowDiskSyncsDuringTheRescue) {
  Written movie;
  movie.disk->hangAt = 8;
  movie.fill(90);
  waitUntil([&] { return movie.disk->calls == 8; });
  std::promise<MovieExtent> answer;
  movie.writer.rescue([&](MovieExtent kept, bool) { answer.set_value(kept); });
  EXPECT_EQ(movie.writer.synced().frames, 30);
  movie.disk->hangAt = -1;
  EXPECT_EQ(answer.get_future().get().frames, 60);
  EXPECT_EQ(movie.writer.status(), WriterStatus::failed);
  EXPECT_EQ(readMovie(movie.disk->bytes).times.size(), 60);
}

TEST(MovieFile, HasTheRightTimesAndOffsetsAfterDaysAndGigabytes) {
  constexpr std::size_t samples = LUMORA_SANITIZED ? 8 : 530;  // 4.1 GiB
  const auto sample = keySample((8 << 20) - 4);
  Written movie;
  std::int64_t time = 0;
  for (std::size_t i = 0; i < samples; ++i) {
    const std::int64_t duration = i < 4 ? longestSample : 30000;
    waitUntil([&] { return movie.writer.isReadyForMoreMediaData(); });
    ASSERT_TRUE(movie.writer.append(*sample, true, {time, duration}));
    time += duration;
  }
  EXPECT_EQ(movie.finish(time), WriterStatus::completed);
  const Bytes& bytes = movie.disk->bytes;
  const auto read = [&](std::size_t from) { return integerBE<std::uint64_t>(bytes, from); };
  EXPECT_EQ(read(boxIn(bytes, "tfdt") + 8), static_cast<std::uint64_t>(time) - 30000);
  EXPECT_EQ(read(boxIn(bytes, "mdhd") + 28), static_cast<std::uint64_t>(time));
  const auto end = integerBE<std::uint32_t>(bytes, boxIn(bytes, "moov") - 4);
  EXPECT_EQ(read(placeholderOffset() + 8), movie.disk->size - end - placeholderOffset());
  if (LUMORA_SANITIZED) return;  // the file is too small for large offsets
  EXPECT_EQ(read(boxIn(bytes, "co64") + 12 + 8 * (samples - 1)), movie.disk->largeWriteAt);
}

TEST(MovieFile, ReportsARescueThatLacksMemoryAndCompletesEvenIfItsLogFails) {
  const auto logDisk = std::make_shared<Disk>();
  logDisk->isFull = true;
  const auto movie = MovieDisk::start(std::make_unique<DiskSink>(std::make_shared<Disk>()));
  movie->openLog(std::make_unique<DiskSink>(logDisk), [] { return "line"; });
  std::promise<void> done;
  movie->finish({1}, 0, {2}, [&] { done.set_value(); });
  done.get_future().wait();
  EXPECT_EQ(movie->status(), WriterStatus::completed);
  EXPECT_EQ(movie->logError(), "No space left on device");
  EXPECT_TRUE(logDisk->bytes.empty());
  const auto fail = [](auto...) -> std::optional<MovieDisk::Ending> { throw std::bad_alloc(); };
  std::promise<int> error;
  movie->rescue(0, fail, [&](int status) { error.set_value(status); });
  EXPECT_EQ(error.get_future().get(), ENOMEM);
  movie->cancel();
}

TEST(MovieFile, NeverWaitsForASlowDiskAndMayBeDestroyedOnTheDiskThread) {
  auto movie = std::make_shared<Written>();
  const auto disk = movie->disk;
  disk->hangs = true;
  std::int64_t count = 0;
  while (movie->writer.isReadyForMoreMediaData()) {
    ASSERT_TRUE(movie->append(true, {count * 30000, 30000}, 1 << 20));
    ASSERT_LT(++count, 64);
  }
  EXPECT_GE(count, 31);
  // The handler runs on the disk's thread, and may hold the last reference to the writer.
  movie->writer.finishWriting(count * 30000, [movie] {});
  const std::weak_ptr<Written> gone = std::exchange(movie, nullptr);
  disk->hangs = false;
  waitUntil([&] { return disk->closed.load(); });
  EXPECT_TRUE(gone.expired());
}

}  // namespace
}  // namespace lumora
