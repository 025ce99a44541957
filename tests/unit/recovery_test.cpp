// The files of interrupted takes on a real disk: cut off anywhere, torn, owned by somebody else.
// libavformat reads what becomes of them.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "base/big_endian.h"
#include "base/movie_names.h"
#include "mp4/hybrid_movie_writer.h"
#include "mp4/movie_recovery.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"

namespace lumora {
namespace {

constexpr std::int64_t sampleUnits = 10000;  // so a fragment has three samples
constexpr std::size_t sampleBytes = 20;
const std::string takeID = "6f9619ff-8b86-d011-b42d-00cf4fc96401";

// In memory, where syncing is quick.
std::string makeFolder() {
  const std::string memory = "/dev/shm/";
  std::string path = std::filesystem::exists(memory) ? memory : testing::TempDir();
  path += "recovery.XXXXXX";
  return mkdtemp(path.data());
}

struct Recovery : testing::Test {
  ~Recovery() override { std::filesystem::remove_all(folder); }

  static Bytes load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // Makes the staging file one that was written an hour ago.
  void age() const {
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(staging, now - std::chrono::hours(1));
  }
  void place(ByteView bytes) const {
    std::ofstream(staging, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    age();
  }
  RecoveredTake recover() const { return recoverTake(staging, std::time(nullptr)); }

  std::shared_ptr<MovieWriter> write(int samples) const {
    std::string error;
    auto writer = HybridMovies().createWriter(staging, error);
    writer->startWriting(keySample()->format(), 0);
    for (int i = 0; i < samples; ++i) {
      const auto sample = i % 4 == 0 ? keySample(sampleBytes - 4) : deltaSample(sampleBytes - 4);
      writer->append(*sample, i % 4 == 0, {i * sampleUnits, sampleUnits});
    }
    return writer;
  }
  static void finish(MovieWriter& writer, int samples) {
    std::promise<void> done;
    writer.finishWriting(samples * sampleUnits, [&] { done.set_value(); });
    done.get_future().wait();
  }
  // A staging file as a crash leaves it between the tables and the new head.
  Bytes interrupted(int samples) const {
    std::filesystem::remove(staging);
    finish(*write(samples), samples);
    Bytes bytes = load(staging);
    std::filesystem::remove(staging);
    const Bytes free = {0, 0, 0, 16, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 0};
    std::ranges::copy(free, bytes.begin() + static_cast<std::ptrdiff_t>(placeholderOffset()));
    return bytes;
  }

  static Bytes withTwoTracks() {
    Bytes bytes = movieStart(*keySample()->format(), {});
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::size_t at = text.find("trak") - 4;
    const Bytes track(&bytes[at], &bytes[at] + integerBE<std::uint32_t>(bytes, at));
    const std::size_t moov = placeholderOffset() + 16;
    const auto size = integerBE<std::uint32_t>(bytes, moov) + track.size();
    storeBE(&bytes[moov], static_cast<std::uint32_t>(size));
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), track.begin(), track.end());
    return bytes;
  }

  // Expects an ordinary movie of so many samples.
  void expectMovie(const std::string& path, std::size_t samples) const {
    const Bytes bytes = load(path);
    EXPECT_EQ(integerBE<std::uint32_t>(bytes, placeholderOffset()), 1u);  // a 64-bit size follows
    const MovieContents read = readMovie(bytes);
    ASSERT_EQ(read.times.size(), samples);
    for (std::size_t i = 0; i < samples; ++i)
      EXPECT_EQ(read.times[i], static_cast<std::int64_t>(i) * sampleUnits);
    EXPECT_EQ(read.duration, static_cast<std::int64_t>(samples) * sampleUnits);
    EXPECT_EQ(read.keyframes, static_cast<int>((samples + 3) / 4));
  }
  void expectRecovered(std::size_t samples) const {
    const RecoveredTake take = recover();
    EXPECT_EQ(take.left, "");
    EXPECT_EQ(take.path, movie);
    EXPECT_EQ(take.frames, samples);
    EXPECT_EQ(take.duration, static_cast<double>(samples) * sampleUnits / movieTimescale);
    expectMovie(movie, samples);
    std::filesystem::remove(movie);
  }
  // Expects that the file stays as it is.
  void expectLeft(const std::string& reason) const {
    const Bytes before = load(staging);
    const RecoveredTake take = recover();
    EXPECT_NE(take.left.find(reason), std::string::npos) << take.left;
    EXPECT_EQ(take.path, "");
    EXPECT_EQ(load(staging), before);
  }

  const std::string folder = makeFolder();
  const std::string staging = stagingPath(folder + "/clip.mp4", takeID);
  const std::string movie = folder + "/clip.recovered-" + takeID + ".mp4";
};

TEST_F(Recovery, KeepsTheSamplesInFrontOfACut) {
  constexpr int samples = 7;
  const Bytes bytes = interrupted(samples);
  std::vector<std::size_t> ends;  // of the samples
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  for (auto at = text.find("mdat"); at != text.npos; at = text.find("mdat", at + 4)) {
    const std::size_t length = integerBE<std::uint32_t>(bytes, at - 4) - 8;
    for (std::size_t end = sampleBytes; end <= length; end += sampleBytes)
      ends.push_back(at + 4 + end);
  }
  ASSERT_EQ(ends.size(), samples);
  const auto tables = bytes.begin() + static_cast<std::ptrdiff_t>(ends.back());
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    SCOPED_TRACE(cut);
    const auto whole = static_cast<std::size_t>(
        std::ranges::count_if(ends, [cut](std::size_t end) { return end <= cut; }));
    const Bytes torn(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut));
    // What a power cut leaves behind: zeros, or the tables of an earlier recovery.
    for (const Bytes& behind : {Bytes(), Bytes(300), Bytes(tables, bytes.end())}) {
      Bytes file = torn;
      file.insert(file.end(), behind.begin(), behind.end());
      place(file);
      if (whole == 0) {
        expectLeft("it ");
      } else {
        expectRecovered(whole);
      }
    }
    if (testing::Test::HasFailure()) return;
  }
}

TEST_F(Recovery, SwallowsWhateverLiesBehind) {
  const Bytes bytes = interrupted(7);
  const Bytes fragment = fragmentStart(0, 9, 0, {{20, 1000, true}});  // at a time that has passed
  for (const Bytes& behind :
       {Bytes(5000, 0xFF), Bytes{0, 0, 0, 1, 'm', 'o', 'o', 'f'}, Bytes{0, 0, 0, 0}, fragment}) {
    Bytes longer = bytes;
    longer.insert(longer.end(), behind.begin(), behind.end());
    place(longer);
    expectRecovered(7);
  }
}

TEST_F(Recovery, FinishesAMovieOnceAndReplacesNothing) {
  place(interrupted(7));
  std::ofstream(movie) << "somebody else's";
  for (int round = 0; round < 2; ++round) {
    const RecoveredTake take = recover();
    EXPECT_NE(take.left.find("can't be named"), std::string::npos) << take.left;
    EXPECT_EQ(take.path, staging);
    EXPECT_EQ(take.frames, 7u);
    expectMovie(staging, 7);
    age();
  }
  EXPECT_EQ(std::filesystem::file_size(movie), 15u);
  std::filesystem::remove(movie);
  const Bytes finished = load(staging);
  Bytes torn = finished;
  torn.resize(torn.size() - 1);
  place(torn);
  expectLeft("damaged");
  place(finished);
  EXPECT_EQ(recover().left, "");
  EXPECT_EQ(load(movie), finished);
}

TEST_F(Recovery, LeavesATakeUntilItsWriterIsGone) {
  auto writer = write(7);
  finish(*writer, 7);  // nobody has renamed it yet
  age();
  expectLeft("still being recorded");
  writer.reset();
  while (recover().left == "it is still being recorded") std::this_thread::yield();
  expectMovie(movie, 7);
}

TEST_F(Recovery, LeavesWhatIsNoInterruptedTake) {
  expectLeft("No such file");
  place({});
  expectLeft("not a take");
  place(Bytes(1000, 'x'));
  expectLeft("not a take");
  place(movieStart(*keySample()->format(), {}));
  expectLeft("no picture");
  place(withTwoTracks());
  expectLeft("more than one track");
  place(interrupted(7));
  std::filesystem::last_write_time(staging, std::filesystem::file_time_type::clock::now());
  expectLeft("younger than a minute");
  std::filesystem::rename(staging, folder + "/other.mp4");
  std::filesystem::create_symlink("other.mp4", staging);
  expectLeft("symbolic links");
  const std::string added = "." + takeID + ".partial";
  for (const std::string& name : std::vector<std::string>{
           "clip.mp4", "clip.mp4..partial", "clip.mov" + added, ".mp4" + added, "mp4" + added}) {
    EXPECT_EQ(recoveryPathOf("/a/" + name), std::nullopt) << name;
  }
  EXPECT_EQ(findStagingFiles(folder), std::vector{staging});
}

}  // namespace
}  // namespace lumora
