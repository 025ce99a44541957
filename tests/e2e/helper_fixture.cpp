#include "tests/e2e/helper_fixture.h"

#include <stdlib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>

namespace lumora::tests {

std::string helperProgram() {
  const char* other = std::getenv("LUMORA_HELPER");
  return other != nullptr ? other : LUMORA_HELPER;
}

Pixels quarters(FrameSize size, Rgb topLeft, Rgb topRight, Rgb bottomLeft, Rgb bottomRight) {
  const Rgb colours[2][2] = {{bottomLeft, bottomRight}, {topLeft, topRight}};
  Pixels pixels;
  for (int i = 0; i < size.width * size.height; ++i) {
    const bool isTop = i / size.width >= size.height / 2;
    const auto& [red, green, blue] = colours[isTop][i % size.width >= size.width / 2];
    pixels.insert(pixels.end(), {red, green, blue, 255});
  }
  return pixels;
}

void expectColours(const std::string& path, FrameSize size, const std::vector<Spot>& spots,
                   int tolerance) {
  EXPECT_EQ(decodeErrors(path), "");
  const std::string all = outputOf("ffmpeg -v error -nostdin -i " + tools::shellQuoted(path) +
                                   " -f rawvideo -pix_fmt rgb24 -");
  const auto [width, height] = size;
  const auto bytes = static_cast<std::size_t>(width * height * 3);
  ASSERT_GE(all.size(), bytes);
  for (const auto& [x, y, colour] : spots) {
    const int pixel = static_cast<int>(y * height) * width + static_cast<int>(x * width);
    std::size_t at = all.size() - bytes + static_cast<std::size_t>(pixel) * 3;
    for (const std::uint8_t level : {colour.red, colour.green, colour.blue})
      EXPECT_NEAR(static_cast<std::uint8_t>(all.at(at++)), level, tolerance) << x << "," << y;
  }
}

int countFrames(const std::string& path) {
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* file = nullptr;
  if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) != 0) return 0;
  int count = 0;
  if (file->nb_streams == 1) {
    AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    decoder->err_recognition = AV_EF_EXPLODE;
    avcodec_parameters_to_context(decoder, file->streams[0]->codecpar);
    avcodec_open2(decoder, nullptr, nullptr);
    static AVPacket* const packet = av_packet_alloc();
    static AVFrame* const frame = av_frame_alloc();
    for (bool sound = true; sound;) {
      sound = av_read_frame(file, packet) == 0 && (packet->flags & AV_PKT_FLAG_CORRUPT) == 0 &&
              avcodec_send_packet(decoder, packet) == 0;
      if (!sound) avcodec_send_packet(decoder, nullptr);
      while (avcodec_receive_frame(decoder, frame) == 0) ++count;
      av_packet_unref(packet);
    }
    avcodec_free_context(&decoder);
  }
  avformat_close_input(&file);
  return count;
}

Event probe(const std::string& path) {
  const std::string command = "ffprobe -v error -count_frames -show_streams -of json ";
  return Event::parse(outputOf(command + tools::shellQuoted(path))).at("streams").at(0);
}

void expectKeys(const Event& event, const Event& wanted) {
  for (const auto& [key, value] : wanted.items()) EXPECT_EQ(event.at(key), value) << key;
}

void HelperTest::SetUp() {
  // So that a write to a helper that has ended fails. Unlike SIG_IGN, a child doesn't inherit it.
  std::signal(SIGPIPE, [](int) {});
  std::string name = (std::filesystem::temp_directory_path() / "lumora-test-XXXXXX").string();
  ASSERT_NE(mkdtemp(name.data()), nullptr);
  folder = name;
  path = folder / "a take.\xC3\xA9.mp4";
}

void HelperTest::TearDown() {
  EXPECT_TRUE(!helper || finish() == 0);
  std::filesystem::remove_all(folder);
}

void HelperTest::start(Arguments arguments, Environment environment) {
  EXPECT_TRUE(!helper || finish() == 0);
  launch(std::move(arguments), std::move(environment));
  port = helper->waitForEvent("ready").at("port");
}

void HelperTest::launch(Arguments arguments, Environment environment) {
  if (transport == client::FrameTransport::memory) slots = client::FrameSlots::makeShared();
  helper = std::make_unique<HelperProcess>(
      client::LaunchOptions{helperProgram(), token, std::move(arguments), std::move(environment),
                            slots ? slots->descriptor() : -1});
  lastID = 0;
}

int HelperTest::exitCode() {
  const auto end = helper->wait(20);
  helper.reset();
  return end && end->signal == 0 ? end->status : -1;
}

std::unique_ptr<client::StreamClient> HelperTest::connectClient() {
  auto made = connect();
  made->sayHello(token);
  helper->waitForEvent("stats", [](const Event& event) { return event.at("clients") > 0; });
  return made;
}

void HelperTest::feed(FrameSize size, const Pixels& pixels) {
  std::optional<client::Frame> frame;
  for (const client::Deadline deadline(20); slots && !(frame = slots->acquire(size));) {
    ASSERT_TRUE(helper->takesInput() && deadline.millisecondsLeft() > 0);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  if (frame) std::memcpy(frame->pixels().data(), pixels.data(), pixels.size());
  ASSERT_TRUE(frame ? helper->writeFrame(*frame, ++lastID)
                    : helper->writePixels(size, ++lastID, pixels));
}

void HelperTest::feedUntil(const std::function<bool()>& isEnough, FrameSize size,
                           const std::vector<Pixels>& pictures, double framesPerSecond) {
  if (pictures.empty()) {
    const auto usual = quarters(size, {200, 30, 30}, {30, 200, 30}, {30, 30, 200}, {90, 90, 90});
    return feedUntil(isEnough, size, {usual}, framesPerSecond);
  }
  const double patience = uptime() + 100;
  auto due = std::chrono::steady_clock::now();
  for (std::size_t i = 0; !isEnough(); ++i) {
    ASSERT_LT(uptime(), patience);
    std::this_thread::sleep_until(due);
    due += std::chrono::microseconds(std::lround(1e6 / framesPerSecond));
    feed(size, pictures[i % pictures.size()]);
  }
}

std::vector<Packet> HelperTest::stream(FrameSize size, const Pixels& picture, int count) {
  Watcher watcher(connectClient());
  feedUntil([&] { return watcher.frames() >= count; }, size, {picture});
  return watcher.finish();
}

std::string HelperTest::writeStream(const std::vector<Packet>& packets) const {
  const std::string written = folder / "stream.h264";
  std::ofstream file(written, std::ios::binary);
  for (const Packet& packet : packets)
    std::ranges::copy(toAnnexB(packet), std::ostreambuf_iterator<char>(file));
  return written;
}

Event HelperTest::waitForTake(const std::string& state) {
  return helper->waitForEvent("recording", [&](const Event& event) {
    if (event.at("id") != takeID) return false;
    const auto& reached = event.at("state");
    if (reached != state && (reached == "failed" || reached == "saved"))
      throw std::runtime_error(event.dump());
    return reached == state;
  });
}

std::string HelperTest::expectKept(const Event& failed) const {
  std::filesystem::path kept(path);
  kept.replace_filename(kept.stem().string() + ".recovered-" + takeID + ".mp4");
  EXPECT_EQ(failed.value("kept_path", ""), kept.filename().string()) << failed;
  EXPECT_FALSE(std::filesystem::exists(stagingPath()));
  EXPECT_EQ(decodeErrors(kept.string()), "");
  const Event movie = probe(kept);
  EXPECT_EQ(movie.value("nb_frames", ""), movie["nb_read_frames"]);  // it has complete tables
  EXPECT_EQ(movie["nb_read_frames"], std::to_string(failed.value("kept_frames", 0)));
  EXPECT_NEAR(movie["duration_ts"].get<double>() / 60000, failed.value("kept_duration", 0.0), 1e-4);
  return kept;
}

}  // namespace lumora::tests
