// Frames in every format of `TAVO_FRAME_FORMAT`. ffmpeg makes them, and judges the movies.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <set>

#include "client/big_endian.h"
#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

// What every picture shows. No colour is so bright or dark that it is cut off somewhere.
constexpr int rows = 2, columns = 4;
constexpr Rgb patches[rows][columns] = {
    {{200, 40, 40}, {230, 230, 230}, {20, 20, 20}, {40, 50, 200}},
    {{220, 170, 140}, {40, 180, 60}, {128, 128, 128}, {20, 90, 100}}};
constexpr Rgb black{0, 0, 0};

Rgb patchAt(int x, int y, FrameSize size) {
  return patches[y * rows / size.height][x * columns / size.width];
}

Pixels patchwork(FrameSize size) {
  Pixels pixels;
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      const auto [red, green, blue] = patchAt(x, y, size);
      pixels.insert(pixels.end(), {red, green, blue});
    }
  }
  return pixels;
}

Pixels bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Pixels(std::istreambuf_iterator<char>(file), {});
}

std::string text(FrameSize size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

bool contains(const std::string& format, const char* word) {
  return format.find(word) != std::string::npos;
}

Pixels record(std::size_t length, FrameSize size, std::uint64_t id, const Pixels& payload) {
  const auto header = client::recordHeader(static_cast<std::uint32_t>(length),
                                           static_cast<std::uint16_t>(size.width),
                                           static_cast<std::uint16_t>(size.height), id);
  Pixels bytes(header.begin(), header.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

// Where a frame lies in shared memory, as the payload of its record.
Pixels reference(const std::vector<std::uint64_t>& fields) {
  Pixels bytes;
  for (const std::uint64_t field : fields) client::appendBigEndian(bytes, field, 8);
  return bytes;
}

// Where along `all` pixels to look, if a picture of `length` lies in their middle: at the middle of
// each of its `parts`, on both sides of its borders, and inside the borders of the whole.
std::vector<int> places(int all, int length, int parts) {
  constexpr int aside = 8;  // from a border, which the encoder and chroma blur
  const int from = (all - length) / 2;
  std::vector<int> found = {aside,           from - aside,          from + aside,
                            all - 1 - aside, from + length - aside, from + length - 1 + aside};
  for (int part = 0; part < parts; ++part)
    found.push_back(from + (2 * part + 1) * length / (2 * parts));
  std::erase_if(found, [&](int place) { return place < 0 || place >= all; });
  return found;
}

struct FrameFormats : HelperTest {
  void startWith(const std::string& format) {
    start({}, {{"TAVO_FRAME_FORMAT", format}});
    hasLengths = contains(format, "mjpeg");
    takeID.back() = '0';
    if (!slots) return;
    void* const mapped =
        mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_SHARED, slots->descriptor(), 0);
    ASSERT_NE(mapped, MAP_FAILED);
    memory = {static_cast<std::uint8_t*>(mapped),
              [](std::uint8_t* bytes) { munmap(bytes, mappedBytes); }};
  }

  // What ffmpeg makes with these arguments.
  Pixels made(const std::string& arguments) const {
    const std::string file = folder / "made";
    EXPECT_EQ(outputOf("ffmpeg -v error -xerror -nostdin -y " + arguments + " " + file), "");
    return bytesOf(file);
  }

  // The patches as a camera with this format delivers them. `pixels` is ffmpeg's name of it.
  Pixels picture(FrameSize size, const std::string& format, const std::string& pixels) const {
    const Pixels rgb = patchwork(size);
    std::ofstream(folder / "rgb", std::ios::binary)
        .write(reinterpret_cast<const char*>(rgb.data()), std::ssize(rgb));
    const bool isJPEG = contains(format, "mjpeg");
    const bool isFourBytes = contains(format, "rgba") || contains(format, "bgra");
    const bool isUpsideDown =
        contains(format, "bottom") || (isFourBytes && !contains(format, "top"));
    return made("-f rawvideo -pix_fmt rgb24 -video_size " + text(size) + " -i " +
                (folder / "rgb").string() + " -vf " + (isUpsideDown ? "vflip," : "") + exactScale +
                ":out_color_matrix=" + (contains(format, "bt709") ? "bt709" : "bt601") +
                ":out_range=" + (isJPEG || contains(format, "full") ? "full" : "limited") +
                ",format=" + pixels +
                (isJPEG ? " -q:v 2 -huffman default -f mjpeg" : " -f rawvideo"));
  }

  // Feeds a frame. In shared memory it is overwritten as soon as it is released.
  void send(FrameSize size, const Pixels& frame) {
    if (!slots) {
      ASSERT_TRUE(helper->writeBytes(record(frame.size(), size, ++lastID, frame)));
      return;
    }
    constexpr std::size_t offset = 4096;
    std::ranges::copy(frame, memory.get() + offset);
    const Pixels payload = hasLengths ? reference({offset, frame.size()}) : reference({offset});
    ASSERT_TRUE(helper->writeBytes(record(payload.size(), size, ++lastID, payload)));
    const std::atomic_ref released(*reinterpret_cast<std::uint64_t*>(memory.get()));
    for (const client::Deadline deadline(20); released.load() < lastID; usleep(100))
      ASSERT_GT(deadline.millisecondsLeft(), 0);
    std::memset(memory.get() + offset, 85, frame.size());
  }
  void sendUntil(const std::function<bool()>& isEnough, FrameSize size, const Pixels& frame) {
    for (const client::Deadline deadline(20); !isEnough(); usleep(16'000)) {
      ASSERT_GT(deadline.millisecondsLeft(), 0);
      send(size, frame);
    }
  }

  // Expects the patches of a camera in the last picture of a file, and black around them.
  void expectPatches(const std::string& file, FrameSize size, FrameSize camera) const {
    const Pixels last = made("-i " + file + " -vf " + exactScale +
                             ",format=rgb24 -c:v rawvideo -f image2 -update 1");
    ASSERT_EQ(last.size(), size.rgbaBytes() / 4 * 3);
    const double scale = std::min(static_cast<double>(size.width) / camera.width,
                                  static_cast<double>(size.height) / camera.height);
    const FrameSize inner{static_cast<int>(std::lround(camera.width * scale)),
                          static_cast<int>(std::lround(camera.height * scale))};
    for (const int y : places(size.height, inner.height, rows)) {
      for (const int x : places(size.width, inner.width, columns)) {
        const int u = x - (size.width - inner.width) / 2;
        const int v = y - (size.height - inner.height) / 2;
        const bool isBar = u < 0 || v < 0 || u >= inner.width || v >= inner.height;
        const auto [red, green, blue] = isBar ? black : patchAt(u, v, inner);
        auto at = static_cast<std::size_t>(y * size.width + x) * 3;
        for (const int level : {red, green, blue})
          EXPECT_NEAR(last[at++], level, 3) << x << "," << y;
      }
    }
  }

  void expectTags(const std::string& file, bool is601) const {
    const Event seen = probe(file);
    expectKeys(seen, {{"color_space", is601 ? "smpte170m" : "bt709"}, {"color_range", "tv"}});
    expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
  }

  // Saves a take without bars and one with bars, of odd width.
  void expectTakes(const std::string& format, const std::string& pixels) {
    SCOPED_TRACE(format);
    const bool isRGB = contains(pixels, "rgb") || contains(pixels, "bgr");
    const bool is601 = !isRGB && !contains(format, "bt709");
    startWith(format);
    for (const auto& [camera, size] : {std::pair{FrameSize{640, 360}, FrameSize{640, 360}},
                                       {FrameSize{642, 480}, FrameSize{1080, 720}}}) {
      turnTo(folder / "take.mp4");
      startTake({{"resolution", text(size)}, {"target_fps", 60}});
      sendUntil([count = 20]() mutable { return count-- == 0; }, camera,
                picture(camera, format, pixels));
      stopTake();
      waitForTake("saved");
      expectPatches(path, size, camera);
      expectTags(path, is601);
      const std::string tags("colrnclx\0\1\0\15\0", 13);  // then the matrix
      const Pixels movie = bytesOf(path);
      const auto box = std::ranges::search(movie, tags);
      ASSERT_FALSE(box.empty());
      EXPECT_EQ(*box.end(), is601 ? 6 : 1);
      std::filesystem::remove(path);
    }
  }

  static constexpr std::size_t mappedBytes = std::size_t{4} << 20;
  // ffmpeg's conversion, with the matrix and the range that its input is tagged with.
  static constexpr auto exactScale = "scale=flags=accurate_rnd+full_chroma_int+full_chroma_inp";
  std::shared_ptr<std::uint8_t> memory;  // shared with the helper, if it has `slots`
  bool hasLengths = false;               // references give the length, too
};

TEST_F(FrameFormats, KeepTheirColoursAndRowsInTakes) {
  for (const auto& [format, pixels] : {std::pair{"rgba,top", "rgba"},
                                       {"bgra", "bgra"},
                                       {"rgb24", "rgb24"},
                                       {"bgr24,bottom", "bgr24"},
                                       {"nv12", "nv12"},
                                       {"nv12,bt709,full,bottom", "nv12"},
                                       {"nv21,full", "nv21"},
                                       {"nv21,bottom,limited,bt709", "nv21"},
                                       {"i420,bottom,bt601,full", "yuv420p"},
                                       {"i420,bt709,top", "yuv420p"},
                                       {"yuyv", "yuyv422"},
                                       {"yuyv,full,bottom,bt709", "yuyv422"},
                                       {"uyvy,bottom,full", "uyvy422"},
                                       {"uyvy,bt709", "uyvy422"},
                                       {"mjpeg", "yuvj420p"},
                                       {"mjpeg,bottom", "yuvj422p"}})
    expectTakes(format, pixels);
}

TEST_F(FrameFormats, KeepTheirColoursAndRowsInSharedMemory) {
  transport = client::FrameTransport::memory;
  expectTakes("nv12,full", "nv12");
  expectTakes("yuyv,bottom", "yuyv422");
  expectTakes("mjpeg", "yuvj422p");
}

TEST_F(FrameFormats, ThePreviewHasTheMatrixOfItsSource) {
  startWith("nv12,full");
  const FrameSize camera{1280, 720};
  Watcher watcher(connectClient());
  sendUntil([&] { return watcher.frames() >= 20; }, camera, picture(camera, "nv12,full", "nv12"));
  const std::string file = writeStream(watcher.finish());
  expectPatches(file, {640, 360}, camera);
  expectTags(file, /*is601=*/true);
}

TEST_F(FrameFormats, OtherWordsAreAnInvalidConfiguration) {
  for (const char* format : {"", "nv12,top,bottom"}) {
    SCOPED_TRACE(format);
    launch({}, {{"TAVO_FRAME_FORMAT", format}});
    EXPECT_EQ(helper->waitForEvent("error").at("message"), "invalid helper configuration");
    EXPECT_EQ(exitCode(), 1);
  }
}

TEST_F(FrameFormats, ARecordOfAnotherLengthEndsTheHelper) {
  transport = client::FrameTransport::pipe;
  const FrameSize size{64, 36};
  const auto expectEnd = [&](const std::string& format, std::size_t length,
                             const Pixels& payload = {}) {
    SCOPED_TRACE(format + " " + std::to_string(length) + testing::PrintToString(payload));
    startWith(format);
    helper->writeBytes(record(length, size, 1, payload));
    EXPECT_EQ(helper->waitForEvent("error").at("message"), "invalid raw frame header");
    EXPECT_EQ(exitCode(), 1);
  };
  constexpr std::size_t area = 64 * 36, mostOfJPEG = std::size_t{64} << 10, page = 4096;
  for (const auto& [format, length] : {std::pair{"rgb24", area * 4},
                                       {"nv12", area * 3 / 2 + 1},
                                       {"nv12", std::size_t{8}},
                                       {"yuyv", area * 3 / 2},
                                       {"mjpeg", std::size_t{1}},
                                       {"mjpeg", mostOfJPEG + 1}})
    expectEnd(format, length);
  transport = client::FrameTransport::memory;
  const std::uint64_t end = static_cast<std::uint64_t>(
      lseek(client::FrameSlots::makeShared()->descriptor(), 0, SEEK_END));
  expectEnd("nv12", 16, reference({page, area * 3 / 2}));
  for (const auto& [offset, length] : {std::pair{page, std::uint64_t{1}},
                                       {page, mostOfJPEG + 1},
                                       {end - page, page + 1},
                                       {page, (std::uint64_t{1} << 32) + 100},
                                       {-page, 2 * page},
                                       {page + 1, page}})
    expectEnd("mjpeg", 16, reference({offset, length}));
}

// The first place of a segment with this marker, or the end.
std::size_t segment(const Pixels& jpeg, std::uint8_t marker) {
  const std::uint8_t wanted[] = {0xFF, marker};
  return static_cast<std::size_t>(std::ranges::search(jpeg, wanted).begin() - jpeg.begin());
}

Pixels withoutHuffmanTables(Pixels jpeg) {
  for (std::size_t at = 0; (at = segment(jpeg, 0xC4)) < jpeg.size();) {
    const auto from = jpeg.begin() + static_cast<std::ptrdiff_t>(at);
    jpeg.erase(from, from + 2 + 256 * from[2] + from[3]);
  }
  return jpeg;
}

TEST_F(FrameFormats, BrokenJPEGsAreDroppedAndCountedAndOthersAreNot) {
  const FrameSize size{64, 32};
  const std::string corpus = LUMORA_JPEGS;
  const Pixels whole = picture(size, "mjpeg", "yuvj420p");
  const Pixels progressive = bytesOf(corpus + "/progressive");
  const std::size_t scan = segment(whole, 0xDA);
  ASSERT_LT(scan, whole.size());
  ASSERT_FALSE(progressive.empty());

  const Pixels bare = withoutHuffmanTables(whole);
  ASSERT_LT(bare.size(), whole.size());
  Pixels trailed = whole, stuffed = whole;
  trailed.resize(whole.size() + 100);
  stuffed.insert(stuffed.end() - 2, 100, 0);
  stuffed.insert(stuffed.begin() + static_cast<std::ptrdiff_t>(scan), 3, 0);
  const Pixels good[] = {whole, bare, trailed, stuffed, progressive, bytesOf(corpus + "/422")};

  Pixels half = whole, cutProgressive = progressive, vast = whole;
  half.resize((scan + whole.size()) / 2);
  Pixels ended = half;
  ended.insert(ended.end(), {0xFF, 0xD9});
  cutProgressive.resize(segment(progressive, 0xDA) + 30);
  std::fill_n(vast.begin() + static_cast<std::ptrdiff_t>(segment(vast, 0xC0)) + 5, 4, 0xFF);
  const Pixels longest(std::size_t{64} << 10, 0xFF), shortest = {0xFF, 0xD8};
  const Pixels broken[] = {half,
                           ended,
                           cutProgressive,
                           vast,
                           longest,
                           shortest,
                           picture({64, 64}, "mjpeg", "yuvj420p"),
                           picture(size, "mjpeg", "yuvj444p"),
                           bytesOf(corpus + "/grey")};

  for (const auto from : {client::FrameTransport::pipe, client::FrameTransport::memory}) {
    transport = from;
    startWith("mjpeg");
    Watcher watcher(connectClient());
    turnTo(folder / "take.mp4");
    startTake({{"resolution", "640x360"}, {"target_fps", 60}});
    std::map<std::uint64_t, std::size_t> kinds;  // of good frames, by id
    for (std::size_t round = 0; round < std::size(good); ++round) {
      for (const Pixels& jpeg : broken) send(size, jpeg), usleep(5'000);
      // Each kind is once the first, because others may come while one is being encoded.
      for (std::size_t i = 0; i < std::size(good); ++i, usleep(20'000)) {
        const std::size_t kind = (i + round) % std::size(good);
        send(size, good[kind]);
        kinds[lastID] = kind;
      }
    }
    sendUntil([count = 20]() mutable { return count-- == 0; }, size, whole);
    saveTake();
    expectColours(path, {640, 360}, {{0.125, 0.25, patches[0][0]}, {0.875, 0.75, patches[1][3]}},
                  4);
    std::filesystem::remove(path);
    helper->waitForEvent("stats", [&](const Event& event) {
      return event.at("dropped_raw").get<std::uint64_t>() +
                 event.at("encoded_frames").get<std::uint64_t>() ==
             lastID;
    });
    std::set<std::size_t> encoded;
    for (const Packet& packet : watcher.finish()) {
      if (packet.type != Packet::Type::frame || packet.frameID > lastID - 20) continue;
      ASSERT_TRUE(kinds.contains(packet.frameID)) << packet.frameID;  // else it was broken
      encoded.insert(kinds[packet.frameID]);
    }
    EXPECT_EQ(encoded.size(), std::size(good));
  }
}

}  // namespace
}  // namespace lumora::tests
