// The movie writer's files, read back by libavformat: whole, cut off anywhere, on disks that fail.

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <future>
#include <numeric>
#include <thread>

#include "mp4/hybrid_movie_writer.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"

namespace lumora {
namespace {

// A disk in memory that can be told to fail or to hang.
struct Disk {
  std::mutex mutex;
  std::condition_variable changed;
  Bytes bytes;
  int failAfter = -1;  // calls that still succeed; negative: all
  int calls = 0;
  bool hangs = false, closed = false;
  std::uint64_t free = std::uint64_t{1} << 30;  // bytes that anybody may have
  std::uint64_t reserved = 0;

  int call(const std::function<void()>& effect) {
    std::unique_lock hold(mutex);
    changed.wait(hold, [this] { return !hangs; });
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
    const std::uint64_t more = std::max(bytes, disk->reserved) - disk->reserved;
    if (more > disk->free) return ENOSPC;
    disk->free -= more;
    disk->reserved += more;
    return 0;
  }
  void releaseRoom() override { disk->reserved = 0; }
  int write(ByteView bytes) override {
    if (const int error = reserve(bytes.size()); error != 0) return error;
    return disk->call([&] {
      disk->bytes.insert(disk->bytes.end(), bytes.begin(), bytes.end());
      disk->reserved -= bytes.size();
    });
  }
  int overwrite(std::uint64_t offset, ByteView bytes) override {
    return disk->call([&] { std::ranges::copy(bytes, disk->bytes.data() + offset); });
  }
  int sync() override {
    return disk->call([] {});
  }
  std::shared_ptr<Disk> disk;
};

void finishMovie(HybridMovieWriter& writer, std::int64_t end) {
  std::promise<void> done;
  writer.finishWriting(end, [&] { done.set_value(); });
  done.get_future().wait();
}

struct Written {
  explicit Written(std::shared_ptr<Disk> on = std::make_shared<Disk>())
      : disk(std::move(on)), writer(std::make_unique<DiskSink>(disk), 3'800'000'000) {
    EXPECT_TRUE(writer.startWriting(keySample()->format()));
  }
  bool append(std::size_t size, bool keyframe, MovieTiming timing) {
    const auto sample = keyframe ? keySample(size - 4) : deltaSample(size - 4);
    return writer.append(*sample, keyframe, timing);
  }
  // `count` samples of 1000 units each, a key frame every 30.
  void fill(int count, std::size_t size = 20) {
    for (int i = 0; i < count; ++i) ASSERT_TRUE(append(size, i % 30 == 0, {i * 1000, 1000}));
  }
  WriterStatus finish(std::int64_t end) {
    finishMovie(writer, end);
    return writer.status();
  }
  std::shared_ptr<Disk> disk;
  HybridMovieWriter writer;
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
    fragments.push_back({at - 4, std::size_t{bytes[at - 2]} * 256 + bytes[at - 1]});
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
    // Players also rely on the length of the table: nothing but samples that there are.
    const Bytes& bytes = movie.disk->bytes;
    EXPECT_EQ(bytes.at(asText(bytes).find("stss") + 11), (samples + 29) / 30);
  }
}

TEST(MovieFile, AMovieWithoutASampleFails) {
  Written movie;
  movie.fill(3);
  EXPECT_EQ(movie.finish(0), WriterStatus::failed);
  EXPECT_NE(movie.writer.error(), std::nullopt);
}

TEST(MovieFile, IsPlayableWhereverItIsCutOff) {
  Written movie;
  movie.fill(91);
  movie.finish(91000);
  // The staging file as it was: the finished one without its end, with its placeholder.
  Bytes bytes = movie.disk->bytes;
  const Bytes free = {0, 0, 0, 16, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 0};
  std::ranges::copy(free, bytes.begin() + static_cast<std::ptrdiff_t>(placeholderOffset()));
  const auto fragments = findFragments(bytes);
  ASSERT_EQ(fragments.size(), 4u);
  const Fragment last = fragments[2];
  const std::size_t end = fragments[3].offset;
  for (std::size_t cut = last.offset; cut < end; ++cut) {
    // libavformat refuses every file that ends inside a `moof`, from the track's header on. No
    // crash leaves one: see the next test.
    if (cut >= last.offset + 40 && cut < last.offset + last.size) continue;
    const MovieContents read = readMovie(ByteView(bytes).first(cut));
    ASSERT_TRUE(read.opened) << cut;
    ASSERT_GE(read.times.size(), 60u) << cut;
    ASSERT_EQ(read.times[59], 59000) << cut;
  }
  EXPECT_EQ(readMovie(ByteView(bytes).first(end)).times.size(), 90u);
}

TEST(MovieFile, BoundariesOfPagesAndSectorsNeverCutAFragmentsHead) {
  for (std::size_t size = 40; size < 240; size += 3) {
    Written movie;
    movie.fill(400, size);
    movie.finish(400000);
    const Bytes& bytes = movie.disk->bytes;
    for (const auto& [start, length] : findFragments(bytes)) {
      const std::size_t block = length <= 512 ? 512 : 4096;
      EXPECT_EQ(start / block, (start + length - 1) / block) << size;
    }
    EXPECT_EQ(readMovie(bytes).times.size(), 400u) << size;
  }
}

TEST(MovieFile, AHeadIsMovedOnlyWhenItsSectorOrPageWouldCutIt) {
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

TEST(MovieFile, EveryFailingCallIsReportedInWords) {
  for (int failAfter = 0; failAfter <= 16; ++failAfter) {
    const auto disk = std::make_shared<Disk>();
    disk->failAfter = failAfter;
    Written movie(disk);
    for (int i = 0; i < 61; ++i) movie.append(20, i == 0, {i * 1000, 1000});
    // The start and three fragments 3 calls each, the end 4.
    const bool fails = failAfter < 16;
    EXPECT_EQ(movie.finish(61000), fails ? WriterStatus::failed : WriterStatus::completed);
    EXPECT_EQ(movie.writer.error().value_or(""), fails ? "No space left on device" : "");
  }
}

TEST(MovieFile, AFailedMovieLetsGoOfItsFile) {
  const auto disk = std::make_shared<Disk>();
  disk->failAfter = 0;
  {
    Written movie(disk);
    while (!movie.writer.error()) std::this_thread::yield();
  }
  EXPECT_TRUE(disk->waitFor(disk->closed, true));
}

TEST(MovieFile, ADiskThatIsFullAtTheEndStillTakesTheTables) {
  for (const int samples : {30, 3000}) {
    Written movie;
    for (int i = 0; i < samples; ++i) {
      const std::int64_t at = i * 1000 + i % 2;  // as many runs as there are samples
      movie.append(20, true, {at, 1000 + (i % 2 == 0 ? 1 : -1)});
    }
    // The start of the file and every full fragment, 3 calls each, wait for nothing else.
    ASSERT_TRUE(movie.disk->waitFor(movie.disk->calls, 3 + samples / 10));
    movie.disk->set(movie.disk->free, 0);
    EXPECT_EQ(movie.finish(samples * 1000), WriterStatus::completed) << samples;
    EXPECT_EQ(movie.disk->reserved, 0u);
  }
}

// A finish whose handler is the last to know the writer: it goes on the disk's own thread.
TEST(MovieFile, ItsOwnThreadMayBeTheLastToHoldIt) {
  const auto disk = std::make_shared<Disk>();
  auto movie = std::make_shared<Written>(disk);
  movie->fill(1);
  std::promise<void> gone;
  std::shared_ptr<void> guard(nullptr, [&](void*) { gone.set_value(); });
  disk->set(disk->hangs, true);
  movie->writer.finishWriting(1000, [movie, guard] {});
  movie.reset();
  guard.reset();
  disk->set(disk->hangs, false);
  EXPECT_EQ(gone.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(disk->waitFor(disk->closed, true));
}

// Counts what it is given and keeps only what is small: heads and tables, on a sparse file.
struct SparseSink final : ByteSink {
  explicit SparseSink(const std::string& path) : file(path, std::ios::binary) {}
  int reserve(std::uint64_t) override { return 0; }
  void releaseRoom() override {}
  int write(ByteView bytes) override {
    const std::uint64_t offset = std::exchange(size, size + bytes.size());
    return bytes.size() < 1 << 22 ? overwrite(offset, bytes) : 0;
  }
  int overwrite(std::uint64_t offset, ByteView bytes) override {
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    return 0;
  }
  int sync() override { return file.flush().good() ? 0 : EIO; }
  std::ofstream file;
  std::uint64_t size = 0;
};

TEST(MovieFile, TakesOfDaysAndGigabytesKeepTheirTimesAndPlaces) {
  const std::string path = testing::TempDir() + "lumora-long-" + std::to_string(getpid());
  constexpr int samples = 530;  // 4.1 GiB
  {
    HybridMovieWriter writer(std::make_unique<SparseSink>(path), 0);
    const auto sample = keySample((8 << 20) - 4);
    ASSERT_TRUE(writer.startWriting(sample->format()));
    std::int64_t time = 0;
    for (int i = 0; i < samples; ++i) {
      const std::int64_t duration = i < 4 ? longestSample : 30000;
      while (!writer.isReadyForMoreMediaData()) std::this_thread::yield();
      ASSERT_TRUE(writer.append(*sample, true, {time, duration}));
      time += duration;
    }
    finishMovie(writer, time);
    EXPECT_EQ(writer.status(), WriterStatus::completed);
  }
  AVFormatContext* format = nullptr;
  ASSERT_EQ(avformat_open_input(&format, path.c_str(), nullptr, nullptr), 0);
  const AVStream& stream = *format->streams[0];
  EXPECT_EQ(stream.duration, 4 * longestSample + (samples - 4) * 30000);
  ASSERT_EQ(avformat_index_get_entries_count(&stream), samples);
  const AVIndexEntry* first = avformat_index_get_entry(format->streams[0], 0);
  const AVIndexEntry* last = avformat_index_get_entry(format->streams[0], samples - 1);
  EXPECT_EQ(last->timestamp, 4 * longestSample + (samples - 5) * 30000);
  // One fragment's head, at most a page and what aligns it, lies in front of each.
  EXPECT_NEAR(static_cast<double>(last->pos - first->pos), (samples - 1.0) * (8 << 20),
              samples * 4096.0);
  avformat_close_input(&format);
  unlink(path.c_str());
}

TEST(MovieFile, ASlowDiskShowsAsNotReadyAndNeverBlocks) {
  Written movie;
  const auto disk = movie.disk;
  disk->set(disk->hangs, true);
  std::int64_t count = 0;
  while (movie.writer.isReadyForMoreMediaData()) {
    ASSERT_TRUE(movie.append(1 << 20, true, {count * 30000, 30000}));
    ASSERT_LT(++count, 64);
  }
  EXPECT_GE(count, 31);
  disk->set(disk->hangs, false);
  while (!movie.writer.isReadyForMoreMediaData()) std::this_thread::yield();
  disk->set(disk->hangs, true);
  movie.writer.cancelWriting();  // does not wait either
  disk->set(disk->hangs, false);
}

}  // namespace
}  // namespace lumora
