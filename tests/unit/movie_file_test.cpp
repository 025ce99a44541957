// The movie writer's files, read back by libavformat: whole, cut off anywhere, on disks that fail.

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <numeric>
#include <thread>

#include "base/big_endian.h"
#include "mp4/hybrid_movie_writer.h"
#include "mp4/movie_disk.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"

namespace lumora {
namespace {

// A disk in memory that can be told to fail or to hang. Of a large write it keeps only the size.
struct Disk {
  std::mutex mutex;
  std::condition_variable changed;
  Bytes bytes;
  std::size_t size = 0, largeWriteAt = 0;
  int failAfter = -1;             // calls that still succeed; negative: all
  int calls = 0, hangsAfter = 0;  // if it hangs, it does so after as many calls
  bool hangs = false, isWaiting = false, isFull = false, closed = false;
  std::uint64_t reserved = 0;  // bytes, which also a full disk takes

  int call(const std::function<void()>& effect) {
    std::unique_lock hold(mutex);
    const auto goesOn = [this] { return !hangs || calls < hangsAfter; };
    if (!goesOn()) isWaiting = true, changed.notify_all();
    changed.wait(hold, goesOn);
    if (failAfter == 0) return ENOSPC;
    if (failAfter > 0) --failAfter;
    effect();
    ++calls;
    changed.notify_all();
    return 0;
  }
  template <typename Field>
  void set(Field& field, std::type_identity_t<Field> value) {
    const std::lock_guard hold(mutex);
    field = value;
    changed.notify_all();
  }
  template <typename Field>
  bool waitFor(const Field& field, std::type_identity_t<Field> value) {
    std::unique_lock hold(mutex);
    return changed.wait_for(hold, std::chrono::seconds(20), [&] { return field == value; });
  }
};

struct DiskSink final : ByteSink {
  explicit DiskSink(std::shared_ptr<Disk> on) : disk(std::move(on)) {}
  ~DiskSink() override { disk->set(disk->closed, true); }
  int reserve(std::uint64_t bytes) override {
    const std::lock_guard hold(disk->mutex);
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
  bool append(std::size_t size, bool keyframe, MovieTiming timing) {
    const auto sample = keyframe ? keySample(size - 4) : deltaSample(size - 4);
    return writer.append(*sample, keyframe, timing);
  }
  // `count` samples of 20 bytes and 1000 units each, a key frame every 30.
  void fill(int count) {
    for (int i = 0; i < count; ++i) append(20, i % 30 == 0, {i * 1000, 1000});
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

struct Fragment {
  std::size_t offset = 0;
  std::size_t size = 0;  // of the `moof`
};

std::string_view asText(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::vector<Fragment> findFragments(const Bytes& bytes) {
  std::vector<Fragment> fragments;
  const std::string_view text = asText(bytes);
  for (auto at = text.find("moof"); at != text.npos; at = text.find("moof", at + 4))
    fragments.push_back({at - 4, integerBE<std::uint32_t>(bytes, at - 4)});
  return fragments;
}

TEST(MovieFile, LastsExactlyToItsEnd) {
  // 100 samples of 1000 units: at the end, stretched, cut within the last, cut far before.
  const std::tuple<std::int64_t, std::size_t, std::int64_t> cases[] = {
      {100000, 100, 1000}, {130000, 100, 31000}, {99001, 100, 1},
      {99000, 99, 1000},   {12345, 13, 345},     {1, 1, 1}};
  for (const auto& [end, samples, last] : cases) {
    Written movie;
    movie.fill(100);
    EXPECT_EQ(movie.finish(end), WriterStatus::completed);
    const MovieContents read = readMovie(movie.disk->bytes);
    EXPECT_EQ(read.duration, end);
    EXPECT_EQ(read.times.size(), samples);
    EXPECT_EQ(read.durations.back(), last);
    EXPECT_EQ(std::accumulate(read.durations.begin(), read.durations.end(), std::int64_t{0}), end);
    EXPECT_EQ(read.keyframes, static_cast<int>((samples + 29) / 30));
    // Players also rely on the length of the table of key frames.
    const Bytes& bytes = movie.disk->bytes;
    EXPECT_EQ(bytes.at(asText(bytes).find("stss") + 11), (samples + 29) / 30);
  }
  Written empty;
  empty.fill(3);
  EXPECT_EQ(empty.finish(0), WriterStatus::failed);
  EXPECT_NE(empty.writer.error(), std::nullopt);
}

TEST(MovieFile, PlaysWhereverItIsCutOff) {
  Written movie;
  movie.fill(91);
  movie.finish(91000);
  // The staging file as it was: the finished one without its end, with its placeholder.
  Bytes bytes = movie.disk->bytes;
  const Bytes free = {0, 0, 0, 16, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 0};
  std::ranges::copy(free, bytes.begin() + static_cast<std::ptrdiff_t>(placeholderOffset()));
  const auto fragments = findFragments(bytes);
  ASSERT_EQ(fragments.size(), 4u);
  // libavformat refuses every file that ends inside a `moof`, from the track's header on. No crash
  // leaves one, since none is cut by the end of a sector.
  for (const auto& [at, size] : fragments) EXPECT_EQ(at / 512, (at + size - 1) / 512);
  const Fragment last = fragments[2];
  const std::size_t end = fragments[3].offset;
  for (std::size_t cut = last.offset; cut < end; ++cut) {
    if (cut >= last.offset + 40 && cut < last.offset + last.size) continue;
    const MovieContents read = readMovie(ByteView(bytes).first(cut));
    ASSERT_TRUE(read.opened) << cut;
    ASSERT_GE(read.times.size(), 60u) << cut;
    ASSERT_EQ(read.times[59], 59000) << cut;
  }
  EXPECT_EQ(readMovie(ByteView(bytes).first(end)).times.size(), 90u);
}

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

TEST(MovieFile, ReportsEachFailingCallInWords) {
  for (int failAfter = 0; failAfter <= 16; ++failAfter) {
    Written movie(failAfter);
    for (int i = 0; i < 61; ++i) movie.append(20, i == 0, {i * 1000, 1000});
    // The start and three fragments 3 calls each, the end 4.
    const bool fails = failAfter < 16;
    EXPECT_EQ(movie.finish(61000), fails ? WriterStatus::failed : WriterStatus::completed);
    EXPECT_EQ(movie.writer.error().value_or(""), fails ? "No space left on device" : "");
  }
}

TEST(MovieFile, StillTakesItsTablesWhenTheDiskIsFull) {
  for (const int samples : {30, 3000}) {
    Written movie;
    for (int i = 0; i < samples; ++i) {
      const std::int64_t at = i * 1000 + i % 2;  // as many runs as there are samples
      movie.append(20, true, {at, 1000 + (i % 2 == 0 ? 1 : -1)});
    }
    // The start of the file and every full fragment, 3 calls each, wait for nothing else.
    ASSERT_TRUE(movie.disk->waitFor(movie.disk->calls, 3 + samples / 10));
    movie.disk->set(movie.disk->isFull, true);
    EXPECT_EQ(movie.finish(samples * 1000), WriterStatus::completed) << samples;
    EXPECT_EQ(movie.disk->reserved, 0u);
  }
}

// A disk that fails for a while, at any call, and one that fails for good.
TEST(MovieFile, KeepsTheFragmentsThatAreOnADiskThatFailed) {
  for (const bool isForGood : {false, true}) {
    for (int failAfter = 0; failAfter <= 16; ++failAfter) {
      Written movie(failAfter);
      for (int i = 0; i < 61; ++i) movie.append(20, i == 0, {i * 1000, 1000});
      if (failAfter >= 9) movie.finish(61000);  // it fails later than the last full fragment
      if (failAfter == 16) continue;
      while (!movie.writer.error()) std::this_thread::yield();
      if (!isForGood) movie.disk->set(movie.disk->failAfter, -1);
      std::promise<std::pair<MovieExtent, bool>> answer;
      movie.writer.rescue([&](MovieExtent kept, bool isComplete) {
        answer.set_value({kept, isComplete});
      });
      const auto [kept, isComplete] = answer.get_future().get();
      // The start of the file and each fragment take three calls.
      const std::uint64_t fragments = std::max(failAfter / 3 - 1, 0);
      const std::uint64_t frames = std::min<std::uint64_t>(fragments * 30, 61);
      EXPECT_EQ(kept.frames, frames) << failAfter;
      EXPECT_EQ(kept.duration, static_cast<std::int64_t>(frames) * 1000) << failAfter;
      EXPECT_EQ(isComplete, frames > 0 && !isForGood) << failAfter;
      if (frames == 0) continue;
      const MovieContents read = readMovie(movie.disk->bytes);
      // What was written and not synced is there, too, but not counted.
      EXPECT_GE(read.times.size(), frames) << failAfter;
      if (isComplete) {
        EXPECT_EQ(read.times.size(), frames) << failAfter;
        EXPECT_EQ(read.duration, kept.duration) << failAfter;
      }
    }
  }
}

TEST(MovieFile, KeepsAFragmentThatIsBeingSynced) {
  Written movie;
  movie.disk->set(movie.disk->hangsAfter, 11);  // the next call syncs the third fragment
  movie.disk->set(movie.disk->hangs, true);
  movie.fill(90);
  ASSERT_TRUE(movie.disk->waitFor(movie.disk->isWaiting, true));
  EXPECT_EQ(movie.writer.synced().frames, 60u);
  EXPECT_EQ(movie.writer.synced().duration, 60000);
  std::promise<std::pair<MovieExtent, bool>> answer;
  movie.writer.rescue([&](MovieExtent kept, bool isComplete) {
    answer.set_value({kept, isComplete});
  });
  movie.disk->set(movie.disk->hangs, false);
  const auto [kept, isComplete] = answer.get_future().get();
  EXPECT_EQ(kept.frames, 90u);
  EXPECT_TRUE(isComplete);
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

// The handler of a finish may hold the last reference to the writer. It runs on the disk's thread.
TEST(MovieFile, MayEndOnItsOwnThread) {
  auto movie = std::make_shared<Written>();
  const auto disk = movie->disk;
  movie->fill(1);
  disk->set(disk->hangs, true);
  movie->writer.finishWriting(1000, [movie] {});
  const std::weak_ptr<Written> gone = movie;
  movie.reset();
  disk->set(disk->hangs, false);
  EXPECT_TRUE(disk->waitFor(disk->closed, true));
  EXPECT_TRUE(gone.expired());
}

TEST(MovieFile, KeepsTheTimesAndPlacesOfDaysAndGigabytes) {
  constexpr std::size_t samples = 530;  // 4.1 GiB
  const auto sample = keySample((8 << 20) - 4);
  Written movie;
  std::int64_t time = 0;
  for (std::size_t i = 0; i < samples; ++i) {
    const std::int64_t duration = i < 4 ? longestSample : 30000;
    while (!movie.writer.isReadyForMoreMediaData()) std::this_thread::yield();
    ASSERT_TRUE(movie.writer.append(*sample, true, {time, duration}));
    time += duration;
  }
  EXPECT_EQ(movie.finish(time), WriterStatus::completed);
  const Bytes& bytes = movie.disk->bytes;
  const auto at = [&](const char* box) { return asText(bytes).rfind(box); };
  const auto read = [&](std::size_t from) { return integerBE<std::uint64_t>(bytes, from); };
  EXPECT_EQ(read(at("tfdt") + 8), static_cast<std::uint64_t>(time) - 30000);
  EXPECT_EQ(read(at("mdhd") + 28), static_cast<std::uint64_t>(time));
  EXPECT_EQ(read(at("co64") + 12 + 8 * (samples - 1)), movie.disk->largeWriteAt);
  const auto end = integerBE<std::uint32_t>(bytes, at("moov") - 4);
  EXPECT_EQ(read(placeholderOffset() + 8), movie.disk->size - end - placeholderOffset());
}

TEST(MovieFile, SaysThatItsDiskIsSlowAndNeverWaitsForIt) {
  auto movie = std::make_unique<Written>();
  const auto disk = movie->disk;
  disk->set(disk->hangs, true);
  std::int64_t count = 0;
  while (movie->writer.isReadyForMoreMediaData()) {
    ASSERT_TRUE(movie->append(1 << 20, true, {count * 30000, 30000}));
    ASSERT_LT(++count, 64);
  }
  EXPECT_GE(count, 31);
  disk->set(disk->hangs, false);
  while (!movie->writer.isReadyForMoreMediaData()) std::this_thread::yield();
  disk->set(disk->hangs, true);
  movie.reset();
  disk->set(disk->hangs, false);
  EXPECT_TRUE(disk->waitFor(disk->closed, true));
}

}  // namespace
}  // namespace lumora
