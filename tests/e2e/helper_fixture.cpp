#include "tests/e2e/helper_fixture.h"

#include <stdlib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <chrono>
#include <cmath>
#include <fstream>

namespace lumora::tests {

std::string helperProgram() {
  const char* other = std::getenv("LUMORA_HELPER");
  return other != nullptr ? other : LUMORA_HELPER;
}

Pixels quarters(FrameSize size, Rgb topLeft, Rgb topRight, Rgb bottomLeft, Rgb bottomRight) {
  Pixels pixels;
  pixels.reserve(size.bytes());
  const Rgb colours[2][2] = {{bottomLeft, bottomRight}, {topLeft, topRight}};  // fed bottom up
  for (int row = 0; row < size.height; ++row) {
    for (int x = 0; x < size.width; ++x) {
      const auto& [red, green, blue] = colours[row >= size.height / 2][x >= size.width / 2];
      for (const auto level : {red, green, blue, std::uint8_t{255}}) pixels.push_back(level);
    }
  }
  return pixels;
}

Pixels plain(FrameSize size, Rgb colour) { return quarters(size, colour, colour, colour, colour); }

void Picture::expect(double x, double y, Rgb colour, int tolerance) const {
  const auto column = static_cast<std::size_t>(x * size.width);
  const auto row = static_cast<std::size_t>(y * size.height);
  const std::size_t at = (row * static_cast<std::size_t>(size.width) + column) * 3;
  ASSERT_LT(at + 2, rgb.size());
  EXPECT_NEAR(rgb[at], colour.red, tolerance) << x << "," << y;
  EXPECT_NEAR(rgb[at + 1], colour.green, tolerance) << x << "," << y;
  EXPECT_NEAR(rgb[at + 2], colour.blue, tolerance) << x << "," << y;
}

Picture decodeLast(const std::string& path, FrameSize size) {
  EXPECT_EQ(decodeErrors(path), "");
  const std::string all = outputOf("ffmpeg -v error -nostdin -i " + tools::shellQuoted(path) +
                                   " -f rawvideo -pix_fmt rgb24 -");
  const auto bytes = static_cast<std::size_t>(size.width * size.height * 3);
  EXPECT_GE(all.size(), bytes);
  return {size,
          Pixels(all.end() - static_cast<std::ptrdiff_t>(std::min(bytes, all.size())), all.end())};
}

void expectKeys(Event event, const Event& wanted) {
  for (const auto& [key, value] : wanted.items()) EXPECT_EQ(event[key], value) << key;
}

Watcher::Watcher(std::unique_ptr<client::StreamClient> from)
    : thread_([this, viewer = std::move(from)](const std::stop_token& stop) {
        const auto keep = [this](client::Packet packet) {
          if (packet.type == client::Packet::Type::frame) ++frames_;
          packets_.push_back(std::move(packet));
        };
        viewer->watch(keep, [&] { return !stop.stop_requested(); });
      }) {}

std::vector<client::Packet> Watcher::finish() {
  thread_ = {};
  return std::move(packets_);
}

void HelperTest::SetUp() {
  std::string name = (std::filesystem::temp_directory_path() / "lumora-test-XXXXXX").string();
  ASSERT_NE(mkdtemp(name.data()), nullptr);
  folder = name;
  path = folder / "a take.\xC3\xA9.mp4";
}

void HelperTest::TearDown() {
  endHelper();
  std::filesystem::remove_all(folder);
}

void HelperTest::start(std::vector<std::string> arguments,
                       std::map<std::string, std::string> environment) {
  endHelper();
  slots = slotsFor(transport);
  helper = std::make_unique<HelperProcess>(
      client::LaunchOptions{helperProgram(), token, std::move(arguments), std::move(environment)},
      slots);
  port = helper->waitForEvent("ready").at("port");
  lastID = 0;
}

std::unique_ptr<client::StreamClient> HelperTest::connectClient() {
  auto made = connect();
  made->sayHello(token);
  helper->waitForEvent("stats", [](const Event& event) { return event["clients"] > 0; });
  return made;
}

std::vector<client::Packet> HelperTest::stream(client::StreamClient& from, FrameSize size,
                                               const Pixels& pixels, int count) {
  std::vector<client::Packet> packets;
  for (int frames = 0; frames < count;) {
    feed(size, pixels);
    // A frame may be dropped while the one before is in flight: then the next one brings it on.
    for (auto packet = from.receive(0.5); packet; packet = from.receive(0.5)) {
      packets.push_back(*packet);
      if (packet->type != client::Packet::Type::frame) continue;
      ++frames;
      from.acknowledge(packet->frameID);
      break;
    }
    if (from.isClosed() || HasFatalFailure()) break;
  }
  return packets;
}

int HelperTest::exitCode() {
  const auto status = helper->wait(20);
  helper.reset();
  return status && status->signal == 0 ? status->status : -1;
}

std::string HelperTest::writeStream(const std::vector<client::Packet>& packets) const {
  const std::string written = folder / "stream.h264";
  std::ofstream file(written, std::ios::binary);
  for (const client::Packet& packet : packets)
    std::ranges::copy(toAnnexB(packet), std::ostreambuf_iterator<char>(file));
  return written;
}

int countFrames(const std::string& path) {
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* file = nullptr;
  if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) != 0) return 0;
  int count = 0;
  if (file->nb_streams == 1 && avformat_find_stream_info(file, nullptr) >= 0) {
    AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    decoder->err_recognition = AV_EF_EXPLODE;
    avcodec_parameters_to_context(decoder, file->streams[0]->codecpar);
    avcodec_open2(decoder, nullptr, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    for (bool sound = true; sound;) {
      sound = av_read_frame(file, packet) == 0 && (packet->flags & AV_PKT_FLAG_CORRUPT) == 0 &&
              avcodec_send_packet(decoder, packet) == 0;
      if (!sound) avcodec_send_packet(decoder, nullptr);
      while (avcodec_receive_frame(decoder, frame) == 0) ++count;
      av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
  }
  avformat_close_input(&file);
  return count;
}

Event probe(const std::string& path) {
  const std::string command = "ffprobe -v error -count_frames -show_streams -of json ";
  return Event::parse(outputOf(command + tools::shellQuoted(path))).at("streams").at(0);
}

Event HelperTest::saveTake(const Event& keys) {
  stopTake(keys);
  Event saved = waitForTake("saved");
  EXPECT_EQ(decodeErrors(path), "");
  return saved;
}

void HelperTest::feedPaced(int count, double framesPerSecond, FrameSize size,
                           std::vector<Pixels> pictures) {
  if (pictures.empty())
    pictures = {quarters(size, {200, 30, 30}, {30, 200, 30}, {30, 30, 200}, {90, 90, 90})};
  auto due = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(due);
    due += std::chrono::microseconds(std::lround(1e6 / framesPerSecond));
    feed(size, pictures[static_cast<std::size_t>(i) % pictures.size()]);
  }
}

Event HelperTest::take(int count, double framesPerSecond) {
  startTake();
  feedPaced(count, framesPerSecond);
  return saveTake();
}

}  // namespace lumora::tests
