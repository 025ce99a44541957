// Interrupted takes are recovered from real files. The tests cut a file off anywhere, put other
// bytes behind the cut, or give the movie's new name to another file first. libavformat reads the
// movies.

#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "base/big_endian.h"
#include "base/movie_names.h"
#include "mp4/hybrid_movie_writer.h"
#include "mp4/movie_recovery.h"
#include "tests/unit/movie_reader.h"
#include "tests/unit/samples.h"

namespace lumora {
namespace {

constexpr std::int64_t sampleUnits = 10000;  // so a fragment has three samples
constexpr std::size_t unitBytes = 16;        // of the one NAL unit of a sample
const std::string killedID = "6f9619ff-8b86-d011-b42d-00cf4fc96401";
const Bytes packet = {1, 2, 3, 4, 5, 0x11, 7, 8, 0x11};  // of sound
constexpr std::int64_t packetUnits = 7680;

// In memory if possible, since syncing is quick there.
std::string makeFolder() {
  std::string path = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir();
  return mkdtemp((path += "/recovery.XXXXXX").data());
}

struct Recovery : testing::Test {
  ~Recovery() override { std::filesystem::remove_all(folder); }

  static Bytes load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void place(ByteView bytes) const {
    std::ofstream(staging, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  }
  // Recovers as if an hour had passed. A file younger than a minute stays untouched, because its
  // recording may still be running.
  RecoveredTake recover() const { return recoverTake(staging, std::time(nullptr) + 3600); }
  // A movie of seven pictures that a crash has left almost finished: the tables are written, but
  // the head is still the old one. With `hasSound` the movie has sound up to its end.
  Bytes interrupted(bool hasSound = false) const {
    std::filesystem::remove(staging);
    std::string error;
    const auto writer = HybridMovies().createWriter(staging, error);
    if (hasSound) writer->addTrack({8000, 1, 1024, {0x15, 0x88}});
    writer->startWriting(keySample()->format(), 0);
    std::int64_t heard = 0;
    for (int i = 0; i < 7; ++i) {
      for (; hasSound && heard < (i + 1) * sampleUnits; heard += packetUnits)
        writer->append(packet);
      const auto sample = i % 4 == 0 ? keySample(unitBytes) : deltaSample(unitBytes);
      writer->append(*sample, i % 4 == 0, {i * sampleUnits, sampleUnits});
    }
    std::promise<void> done;
    writer->finishWriting(7 * sampleUnits, [&] { done.set_value(); });
    done.get_future().wait();
    Bytes bytes = load(staging);
    std::filesystem::remove(staging);
    const Bytes free = {0, 0, 0, 16, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 0, 0, 0, 0};
    std::ranges::copy(free, bytes.begin() + static_cast<std::ptrdiff_t>(placeholderOffset()));
    return bytes;
  }

  // Expects an ordinary movie with so many pictures and so many packets of sound.
  void expectMovie(const std::string& path, std::size_t samples, std::size_t packets = 0) const {
    const Bytes bytes = load(path);
    EXPECT_EQ(integerBE<std::uint32_t>(bytes, placeholderOffset()), 1u);  // a 64-bit size follows
    const MovieContents read = readMovie(bytes);
    EXPECT_EQ(read.durations, std::vector(samples, sampleUnits));
    EXPECT_EQ(read.duration, static_cast<std::int64_t>(samples) * sampleUnits);
    EXPECT_EQ(read.keyframes, static_cast<int>((samples + 3) / 4));
    const MovieContents sound = readMovie(bytes, 1);
    EXPECT_EQ(sound.durations, std::vector<std::int64_t>(packets, 1024));
    EXPECT_EQ(sound.samples, std::ssize(sound.durations));
    EXPECT_EQ(sound.skipped, packets > 0 ? 1024u : 0u);
  }
  void expectRecovered(std::size_t samples, std::size_t packets = 0) const {
    const RecoveredTake take = recover();
    EXPECT_EQ(std::tie(take.left, take.path, take.frames), std::tuple("", movie, samples));
    EXPECT_EQ(take.duration, static_cast<double>(samples) * sampleUnits / movieTimescale);
    expectMovie(movie, samples, packets);
    std::filesystem::remove(movie);
  }
  // Expects that the file stays as it is.
  void expectLeft(const std::string& reason) const {
    const Bytes before = load(staging);
    const RecoveredTake take = recover();
    EXPECT_THAT(take.left, testing::ContainsRegex(reason));
    EXPECT_EQ(take.path, "");
    EXPECT_EQ(load(staging), before);
  }

  const std::string folder = makeFolder();
  const std::string staging = stagingPath(folder + "/clip.mp4", killedID);
  const std::string movie = folder + "/clip.recovered-" + killedID + ".mp4";
};

// Where each occurrence of `piece` in the bytes ends.
std::vector<std::size_t> endsOf(ByteView piece, const Bytes& bytes) {
  std::vector<std::size_t> ends;
  auto at = bytes.begin();
  while ((at = std::search(at, bytes.end(), piece.begin(), piece.end())) != bytes.end())
    ends.push_back(static_cast<std::size_t>((at += std::ssize(piece)) - bytes.begin()));
  return ends;
}

TEST_F(Recovery, KeepsTheSamplesInFrontOfACut) {
  for (const bool hasSound : {false, true}) {
    Bytes bytes = interrupted(hasSound);
    const auto ends = endsOf(Bytes(unitBytes - 1, 0x11), bytes);  // each unit without its header
    const auto soundEnds = endsOf(packet, bytes);
    ASSERT_EQ(ends.size(), 7u);
    ASSERT_EQ(soundEnds.size(), hasSound ? 10u : 0u);
    // After a power failure, zeros or the tables of an earlier recovery may lie behind the cut.
    const Bytes zeros(300);
    const Bytes tables(bytes.begin() + static_cast<std::ptrdiff_t>(ends.back()), bytes.end());
    for (std::size_t cut = 0; cut <= bytes.size(); cut += LUMORA_SANITIZED ? 7 : 1) {
      SCOPED_TRACE(cut);
      const auto whole = [cut](const std::vector<std::size_t>& of) {
        return static_cast<std::size_t>(std::ranges::upper_bound(of, cut) - of.begin());
      };
      for (const Bytes& behind : {Bytes(), zeros, tables}) {
        Bytes torn(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut));
        torn.insert(torn.end(), behind.begin(), behind.end());
        place(torn);
        whole(ends) == 0 ? expectLeft("not a take|no picture")
                         : expectRecovered(whole(ends), whole(soundEnds));
      }
      if (HasFailure()) return;
    }
    const MovieTrack empty{.id = 1, .picture = keySample()->format()};
    // The time of this fragment is 0, which is wrong behind other fragments.
    const Bytes behind = fragmentStart(0, 9, empty, {{20, 1000, true}});
    bytes.resize(ends.back());  // without the tables
    const Bytes sample(bytes.end() - 20, bytes.end());
    for (const Bytes& part : {behind, sample}) bytes.insert(bytes.end(), part.begin(), part.end());
    place(bytes);
    expectRecovered(7, soundEnds.size());
  }
}

TEST_F(Recovery, FinishesAMovieOnceAndReplacesNothing) {
  place(interrupted());
  std::ofstream(movie) << "somebody else's";
  const RecoveredTake take = recover();
  EXPECT_NE(take.left.find("can't be named"), std::string::npos) << take.left;
  EXPECT_EQ(std::tie(take.path, take.frames), std::tuple(staging, 7));
  expectMovie(staging, 7);
  EXPECT_EQ(std::filesystem::file_size(movie), 15u);
  std::filesystem::remove(movie);
  const Bytes finished = load(staging);
  std::filesystem::resize_file(staging, finished.size() - 1);
  expectLeft("damaged");
  place(finished);
  EXPECT_EQ(recover().left, "");
  EXPECT_EQ(load(movie), finished);
}

TEST_F(Recovery, LeavesWhatIsNoInterruptedTake) {
  expectLeft("No such file");
  place(Bytes(1000, 'x'));
  expectLeft("not a take");
  const MovieTrack picture{.id = 1, .picture = keySample()->format()};
  place(movieStart({picture}, {}));
  expectLeft("no picture");
  place(movieStart({picture, picture}, {}));
  expectLeft("not a take");
  place(interrupted());
  std::filesystem::rename(staging, folder + "/other.mp4");
  std::filesystem::create_symlink("other.mp4", staging);
  expectLeft("symbolic links");
  const std::string added = "." + killedID + ".partial";
  for (const std::string& name : std::vector<std::string>{
           "clip.mp4", "clip.mp4..partial", "clip.mov" + added, ".mp4" + added, "mp4" + added}) {
    EXPECT_EQ(recoveryPathOf("/a/" + name), std::nullopt) << name;
  }
  EXPECT_EQ(findStagingFiles(folder), std::vector{staging});
}

}  // namespace
}  // namespace lumora
