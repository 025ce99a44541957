// Pictures of takes and the preview, for frames of every format and of many sizes. ffmpeg converts
// frames to the formats, and judges the pictures.

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using enum client::FrameEncoding;
using enum client::FirstRow;
using enum client::ColourMatrix;
using enum client::ColourRange;

// What most pictures show. No colour is so bright or dark that a conversion clips it.
constexpr Quarters colours = {{{200, 40, 40}, {230, 230, 230}, {40, 180, 60}, {40, 50, 200}}};

struct FrameFormats : HelperTest {
  // The picture as a camera delivers it in `format`. `pixels`: ffmpeg's name of the encoding.
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

  // Saves and judges two takes: one without bars, and one with bars beside a picture that is 963
  // pixels wide, an odd number.
  void expectTakes(const std::string& pixels) {
    SCOPED_TRACE(format.text());
    const bool isRGB = format.encoding <= bgr24;
    const bool is601 = !isRGB && format.matrix != bt709;
    start();
    for (const auto& [camera, size] : {std::pair{FrameSize{640, 360}, FrameSize{640, 360}},
                                       {FrameSize{642, 480}, FrameSize{1080, 720}}}) {
      turnTo(folder / "take.mp4");
      startTake({{"resolution", text(size)}, {"target_fps", 60}});
      feedPaced(5, 60, camera, {picture(camera, pixels)});
      stopTake();
      waitForTake("saved");
      expectQuarters(path, size, camera, colours);
      const Event seen = probe(path);
      expectKeys(seen, {{"color_range", "tv"}, {"color_space", is601 ? "smpte170m" : "bt709"}});
      expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
      // ffprobe shows the colours that the H.264 stream names. The file's `colr` box must name the
      // same colours.
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
                                     {{yuyv}, "yuyv422"},
                                     {{uyvy, bottom, {}, full}, "uyvy422"},
                                     {{mjpeg}, "yuvj420p"},
                                     {{mjpeg, bottom}, "yuvj422p"}}) {
    format = each;
    expectTakes(pixels);
  }
}

using Preview = HelperTest;

TEST_F(Preview, IsUprightHasTheRightColoursAndIsBaselineAtEverySize) {
  using Case = std::tuple<FrameSize, FrameSize, Arguments>;  // of the camera, of the preview
  for (const auto& [camera, preview, arguments] :
       {Case{{320, 240}, {320, 240}, {}},
        {{1920, 1080}, {640, 360}, {}},
        {{1080, 1920}, {202, 360}, {}},
        {{2, 2}, {2, 2}, {}},
        {{1920, 1080}, {2, 2}, {"--preview-width", "2", "--preview-height", "2"}}}) {
    SCOPED_TRACE(text(camera) + " to " + text(preview));
    start(arguments);
    // A preview of 2x2 has only one sample of chroma, so it shows one colour.
    constexpr Rgb grey{90, 120, 150};
    const Quarters shown = preview.width == 2 ? Quarters{grey, grey, grey, grey} : colours;
    const auto packets = stream(camera, quarters(camera, shown), 70);
    const auto configuration = client::parseConfiguration(packets.at(0).payload);
    EXPECT_EQ((FrameSize{configuration.width, configuration.height}), preview);
    const std::string file = writeStream(packets);
    expectQuarters(file, preview, preview, shown);
    const Event seen = probe(file);
    expectKeys(seen, {{"profile", "Constrained Baseline"}, {"has_b_frames", 0}});
    expectKeys(seen, {{"color_range", "tv"}, {"color_space", "bt709"}});
    expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
    // A configuration packet stands before every key frame and nowhere else.
    for (std::size_t i = 1; i < packets.size(); ++i)
      EXPECT_EQ(packets[i].keyframe, packets[i - 1].type == Packet::Type::configuration);
    // A configuration packet comes at least every 60 frames.
    EXPECT_GE(std::ranges::count(packets, Packet::Type::configuration, &Packet::type), 2);
  }
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

// Every frame is plain. Contrast in a picture shows that a frame was overwritten while it was read.
TEST_F(SharedFrames, AreNotReadAfterTheirRelease) {
  transport = client::FrameTransport::memory;
  // The take has this size, too. So its encoder reads RGBA and NV12 directly from the slot.
  const FrameSize size{1080, 720};
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
