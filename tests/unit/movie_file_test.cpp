// The movie writer on disks that fail, hang, are full or hold gigabytes. libavformat reads what
// becomes of its files.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "base/big_endian.h"
#include "mp4/hybrid_movie_writer.h"
#include "mp4/movie_disk.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"

namespace lumora {
namespace {

void waitUntil(const std::function<bool()>& holds) {
  while (!holds()) std::this_thread::yield();
}

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
  std::uint64_t reserved = 0;       // bytes, which also a full disk takes
  std::atomic<int> failAfter = -1;  // calls that still succeed; negative: all
  std::atomic<int> calls = 0;
  std::atomic<int> hangAt = -1;  // after so many calls
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
    if (const int error = reserve(bytes.size()); error != 0) return error;
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

struct Written {
  explicit Written(int failAfter = -1) {
    disk->failAfter = failAfter;
    writer.startWriting(keySample()->format(), 0);
  }
  bool append(bool keyframe, MovieTiming timing, std::size_t size = 20) {
    const auto sample = keyframe ? keySample(size - 4) : deltaSample(size - 4);
    return writer.append(*sample, keyframe, timing);
  }
  // `count` samples of 1000 units each, a key frame every 30.
  void fill(int count) {
    for (int i = 0; i < count; ++i) append(i % 30 == 0, {i * 1000, 1000});
  }
  WriterStatus finish(std::int64_t end) {
    std::promise<void> done;
    writer.finishWriting(end, [&] { done.set_value(); });
    done.get_future().wait();
    return writer.status();
  }
  std::shared_ptr<Disk> disk = std::make_shared<Disk>();
  HybridMovieWriter writer{std::make_unique<DiskSink>(disk), 3'800'000'000};
};

std::string_view asText(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Where the last box of this type lies in a file.
std::size_t boxIn(const Bytes& bytes, const char* type) { return asText(bytes).rfind(type); }

TEST(MovieFile, MovesAHeadOnlyWhenItsSectorOrPageWouldCutIt) {
  for (std::size_t count = 20; count < 60; ++count) {
    const std::vector<MovieSample> samples(count, {100, 1000, false});
    const std::size_t size = fragmentStart(0, 1, 0, samples).size() - 8;  // without that of `mdat`
    const std::size_t block = size <= 512 ? 512 : 4096;
    for (std::size_t offset = 3300; offset < 4100; ++offset) {
      const std::size_t padding = fragmentStart(offset, 1, 0, samples).size() - 8 - size;
      const std::size_t start = offset + padding;
      ASSERT_EQ(start / block, (start + size - 1) / block) << count << " at " << offset;
      ASSERT_EQ(padding != 0, offset / block != (offset + size - 1) / block) << offset;
      ASSERT_LT(padding, block + 8);
    }
  }
}

TEST(MovieFile, TakesFormatsThatItsBoxesCanHold) {
  const auto isTaken = [](std::size_t sequence, std::size_t picture, int width, int height) {
    return Written().writer.canAdd(
        MemoryFormatDescription(Bytes(sequence), Bytes(picture), width, height, {}));
  };
  EXPECT_TRUE(isTaken(4, 1, 65535, 1) && isTaken(65535, 65535, 1, 65535));
  EXPECT_FALSE(isTaken(3, 1, 2, 2) || isTaken(65536, 1, 2, 2) || isTaken(4, 0, 2, 2));
  EXPECT_FALSE(isTaken(4, 1, 0, 2) || isTaken(4, 1, 65536, 2) || isTaken(4, 1, 2, 0));
}

TEST(MovieFile, StillTakesItsTablesWhenTheDiskIsFull) {
  Written movie;
  for (int i = 0; i < 3000; ++i)  // as many runs as there are samples
    movie.append(true, {i * 1000 + i % 2, 1000 + (i % 2 == 0 ? 1 : -1)});
  // The start of the file and each of 100 full fragments, 3 calls each, wait for nothing else.
  waitUntil([&] { return movie.disk->calls == 303; });
  movie.disk->isFull = true;
  EXPECT_EQ(movie.finish(3'000'000), WriterStatus::completed);
  EXPECT_EQ(movie.disk->reserved, 0u);
}

// A disk that fails for a while, at any call, and one that fails for good.
TEST(MovieFile, KeepsTheFragmentsThatAreOnADiskThatFailed) {
  for (int failAfter = 0; failAfter < 16; ++failAfter) {
    for (const bool isForGood : {false, true}) {
      SCOPED_TRACE(failAfter);
      Written movie(failAfter);
      movie.fill(61);
      // The start of the file and each of three fragments take 3 calls, the end 4.
      if (failAfter >= 9) movie.finish(61000);
      waitUntil([&] { return movie.writer.error().has_value(); });
      EXPECT_EQ(movie.writer.error(), "No space left on device");
      if (!isForGood) movie.disk->failAfter = -1;
      std::promise<std::pair<MovieExtent, bool>> answer;
      movie.writer.rescue([&](MovieExtent kept, bool isComplete) {
        answer.set_value({kept, isComplete});
      });
      const auto [kept, isComplete] = answer.get_future().get();
      EXPECT_EQ(movie.writer.status(), WriterStatus::failed);
      const int frames = std::min(std::max(failAfter / 3 - 1, 0) * 30, 61);
      EXPECT_EQ(kept.frames, frames);
      EXPECT_EQ(kept.duration, frames * 1000);
      EXPECT_EQ(isComplete, frames > 0 && !isForGood);
      if (frames == 0) continue;
      const MovieContents read = readMovie(movie.disk->bytes);
      // What was written and not synced is there, too, but not counted.
      EXPECT_GE(std::ssize(read.times), frames);
      EXPECT_TRUE(!isComplete || read.duration == kept.duration);
      EXPECT_TRUE(!isComplete || std::ssize(read.times) == frames);
    }
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
  EXPECT_EQ(readMovie(movie.disk->bytes).times.size(), 60);
}

TEST(MovieFile, IsIncompleteWithoutMemoryForItsTables) {
  const auto disk = MovieDisk::start(std::make_unique<DiskSink>(std::make_shared<Disk>()));
  std::promise<int> error;
  const auto fail = [](std::size_t, std::uint64_t) -> std::optional<MovieDisk::Ending> {
    throw std::bad_alloc();
  };
  disk->rescue(0, fail, [&](int status) { error.set_value(status); });
  EXPECT_EQ(error.get_future().get(), ENOMEM);
  disk->cancel();
}

TEST(MovieFile, KeepsTheTimesAndPlacesOfDaysAndGigabytes) {
  constexpr std::size_t samples = 530;  // 4.1 GiB
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
  EXPECT_EQ(read(boxIn(bytes, "co64") + 12 + 8 * (samples - 1)), movie.disk->largeWriteAt);
  const auto end = integerBE<std::uint32_t>(bytes, boxIn(bytes, "moov") - 4);
  EXPECT_EQ(read(placeholderOffset() + 8), movie.disk->size - end - placeholderOffset());
}

TEST(MovieFile, HasALogThatMayFailAlone) {
  for (const bool isFull : {false, true}) {
    const auto logDisk = std::make_shared<Disk>();
    logDisk->isFull = isFull;
    const auto movie = MovieDisk::start(std::make_unique<DiskSink>(std::make_shared<Disk>()));
    movie->openLog(std::make_unique<DiskSink>(logDisk),
                   [text = std::string("line")]() mutable { return std::exchange(text, ""); });
    std::promise<void> done;
    movie->finish({1}, 0, {2}, [&] { done.set_value(); });
    done.get_future().wait();
    EXPECT_EQ(movie->status(), WriterStatus::completed);
    EXPECT_EQ(movie->logError().value_or(""), isFull ? "No space left on device" : "");
    EXPECT_EQ(asText(logDisk->bytes), isFull ? "" : "line");
    movie->cancel();
  }
}

TEST(MovieFile, NeverWaitsForASlowDiskAndMayEndOnItsThread) {
  auto movie = std::make_shared<Written>();
  const auto disk = movie->disk;
  disk->hangs = true;
  std::int64_t count = 0;
  while (movie->writer.isReadyForMoreMediaData()) {
    ASSERT_TRUE(movie->append(true, {count * 30000, 30000}, 1 << 20));
    ASSERT_LT(++count, 64);
  }
  EXPECT_GE(count, 31);
  disk->hangs = false;
  waitUntil([&] { return movie->writer.isReadyForMoreMediaData(); });
  disk->hangs = true;
  // The handler may hold the last reference to the writer. It runs on the disk's thread.
  movie->writer.finishWriting(count * 30000, [movie] {});
  const std::weak_ptr<Written> gone = std::exchange(movie, nullptr);
  disk->hangs = false;
  waitUntil([&] { return disk->closed.load(); });
  EXPECT_TRUE(gone.expired());
}

}  // namespace
}  // namespace lumora
