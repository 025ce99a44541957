// Frames in every format, and in shared memory. ffmpeg makes them, and judges the movies.

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "client/records.h"
#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using enum client::FrameEncoding;
using enum client::FirstRow;
using enum client::ColourMatrix;
using enum client::ColourRange;

// What every picture shows. No colour is so bright or dark that it is cut off somewhere.
constexpr Quarters colours = {{{200, 40, 40}, {230, 230, 230}, {40, 180, 60}, {40, 50, 200}}};

struct FrameFormats : HelperTest {
  // As a camera with this format delivers it. `pixels` is ffmpeg's name of the encoding.
  Pixels picture(FrameSize size, const std::string& pixels) const {
    const bool isJPEG = format.encoding == mjpeg;
    const bool isFull = isJPEG || format.range == full;
    const auto usual = format.encoding == rgba || format.encoding == bgra ? bottom : top;
    return made(folder / "made", size, quarters(size, colours),
                (format.firstRow.value_or(usual) == top ? "vflip," : "") + exactScale +
                    ":out_color_matrix=" + (format.matrix == bt709 ? "bt709" : "bt601") +
                    ":out_range=" + (isFull ? "full" : "limited") + ",format=" + pixels +
                    (isJPEG ? " -q:v 2 -f mjpeg" : " -f rawvideo"));
  }

  // Saves a take without bars and one with bars, whose picture has an odd width.
  void expectTakes(const std::string& pixels) {
    SCOPED_TRACE(format.text());
    const bool isRGB = format.encoding <= bgr24;
    const bool is601 = !isRGB && format.matrix != bt709;
    start();
    for (const auto& [camera, size] : {std::pair{FrameSize{640, 360}, FrameSize{640, 360}},
                                       {FrameSize{642, 480}, FrameSize{1080, 720}}}) {
      turnTo(folder / "take.mp4");
      startTake({{"resolution", text(size)}, {"target_fps", 60}});
      feedPaced(20, 60, camera, {picture(camera, pixels)});
      stopTake();
      waitForTake("saved");
      expectQuarters(path, size, camera, colours);
      const Event seen = probe(path);
      expectKeys(seen, {{"color_range", "tv"}, {"color_space", is601 ? "smpte170m" : "bt709"}});
      expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
      // ffprobe believes the stream rather than the file.
      Pixels box = {'c', 'o', 'l', 'r', 'n', 'c', 'l', 'x', 0, 1, 0, 13, 0};
      box.push_back(is601 ? 6 : 1);
      const Pixels movie = bytesOf(path);
      EXPECT_NE(std::search(movie.begin(), movie.end(), box.begin(), box.end()), movie.end());
      std::filesystem::remove(path);
    }
  }
};

TEST_F(FrameFormats, KeepTheirColoursAndRowsInTakes) {
  using Case = std::pair<client::FrameFormat, const char*>;
  for (const auto& [each, pixels] : {Case{{rgba, top}, "rgba"},
                                     {{bgra}, "bgra"},
                                     {{rgb24}, "rgb24"},
                                     {{bgr24, bottom}, "bgr24"},
                                     {{nv12}, "nv12"},
                                     {{nv12, bottom, bt709, full}, "nv12"},
                                     {{nv21, {}, bt709}, "nv21"},
                                     {{i420, bottom, bt601, full}, "yuv420p"},
                                     {{i420, top, bt709}, "yuv420p"},
                                     {{yuyv}, "yuyv422"},
                                     {{uyvy, bottom, {}, full}, "uyvy422"},
                                     {{mjpeg}, "yuvj420p"},
                                     {{mjpeg, bottom}, "yuvj422p"}}) {
    format = each;
    expectTakes(pixels);
  }
}

TEST_F(FrameFormats, ThePreviewHasTheMatrixOfItsSource) {
  format = {nv12, {}, {}, full};
  start();
  const FrameSize camera{1280, 720}, preview{640, 360};
  const std::string file = writeStream(stream(camera, picture(camera, "nv12"), 20));
  expectQuarters(file, preview, camera, colours);
  expectKeys(probe(file), {{"color_range", "tv"}, {"color_space", "smpte170m"}});
}

TEST_F(FrameFormats, AReferenceBeyondTheMemoryEndsTheHelper) {
  transport = client::FrameTransport::memory;
  format = {mjpeg};
  constexpr std::uint64_t page = 4096;
  for (const std::uint64_t length : {page + 1, (std::uint64_t{1} << 32) + 100}) {
    start();
    const auto end = static_cast<std::uint64_t>(lseek(slots->descriptor(), 0, SEEK_END));
    helper->writeBytes(client::frameReference({64, 36}, 1, end - page, length));
    expectFailure("invalid raw frame header");
  }
}

TEST_F(FrameFormats, BrokenJPEGsAreDroppedAndOthersAreNot) {
  const FrameSize size{64, 32};
  const auto jpeg = [](const char* name) { return bytesOf(LUMORA_JPEGS "/" + std::string(name)); };
  format = {mjpeg};
  const Pixels whole = jpeg("420");
  Pixels trailed = whole, stuffed = whole, cut = whole;
  trailed.resize(whole.size() + 100);
  stuffed.insert(stuffed.end() - 2, 100, 0);
  cut.resize(whole.size() - 20);
  Pixels ended = cut;
  ended.insert(ended.end(), {0xFF, 0xD9});
  const std::pair<Pixels, Pixels> brokenAndGood[] = {
      {cut, whole},
      {ended, jpeg("no_huffman_tables")},
      {{0xFF, 0xD8}, trailed},
      {jpeg("grey"), stuffed},
      {picture(size, "yuvj444p"), jpeg("progressive")},
      {picture({64, 64}, "yuvj420p"), jpeg("422")}};

  start();
  Watcher watcher(connectClient());
  std::map<std::uint64_t, int> kinds;  // by the id of the last frame: even if broken
  for (const auto& [broken, good] : brokenAndGood) {
    const int kind = static_cast<int>(kinds.size());
    feedPaced(5, 60, size, {broken});
    kinds[lastID] = kind;
    feedUntil([&, before = watcher.frames()] { return watcher.frames() > before + 2; }, size,
              {good});
    kinds[lastID] = kind + 1;
  }
  std::set<int> encoded;
  for (const Packet& packet : watcher.finish())
    if (packet.type == Packet::Type::frame)
      encoded.insert(kinds.lower_bound(packet.frameID)->second);
  EXPECT_EQ(encoded, (std::set{1, 3, 5, 7, 9, 11}));
}

// How far the darkest and the brightest sample of each picture are apart.
std::vector<int> contrasts(const std::string& file) {
  std::istringstream levels(outputOf("ffmpeg -v error -nostdin -i " + tools::shellQuoted(file) +
                                     " -fps_mode passthrough -enc_time_base -1"
                                     " -vf signalstats,metadata=print:file=- -f null - |"
                                     " sed -n 's/.*YM[IA][NX]=//p'"));
  std::vector<int> all;
  for (int darkest, brightest; levels >> darkest >> brightest;) all.push_back(brightest - darkest);
  return all;
}

using SharedFrames = HelperTest;

// Plain pictures for a take and a client.
TEST_F(SharedFrames, AreNotReadAfterTheirRelease) {
  transport = client::FrameTransport::memory;
  const FrameSize size{1080, 720};  // of the take, so its encoder reads samples in the slot
  const int pictures = sanitized ? 100 : 400;
  for (const auto encoding : {rgba, nv12, yuyv}) {
    format = {encoding};
    SCOPED_TRACE(format.text());
    start();
    Watcher watcher(connectClient());
    turnTo(folder / (format.text() + ".mp4"));
    startTake();
    const auto bytes = format.bytes(size);
    feedUntil([&] { return watcher.frames() >= pictures; }, size,
              {Pixels(bytes, 60), Pixels(bytes, 190)}, 1000);
    saveTake();
    for (const auto& all : {contrasts(writeStream(watcher.finish())), contrasts(path)}) {
      EXPECT_GT(std::ssize(all), pictures / 20);
      EXPECT_THAT(all, testing::Each(testing::Le(8)));
    }
  }
}

}  // namespace
}  // namespace lumora::tests
