#include "tests/e2e/helper_fixture.h"

#include <stdlib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace lumora::tests {

Pixels quarters(FrameSize size, Rgb topLeft, Rgb topRight, Rgb bottomLeft, Rgb bottomRight) {
  Pixels pixels;
  pixels.reserve(size.bytes());
  const Rgb colours[2][2] = {{bottomLeft, bottomRight}, {topLeft, topRight}};  // fed bottom up
  for (int row = 0; row < size.height; ++row) {
    for (int x = 0; x < size.width; ++x) {
      const auto& [red, green, blue] = colours[row >= size.height / 2][x >= size.width / 2];
      for (const int value : {red, green, blue, 255})
        pixels.push_back(static_cast<std::uint8_t>(value));
    }
  }
  return pixels;
}

Pixels plain(FrameSize size, Rgb colour) { return quarters(size, colour, colour, colour, colour); }

std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) throw std::runtime_error("can't run " + command);
  std::array<char, 4096> bytes;
  while (const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
    output.append(bytes.data(), count);
  const int status = pclose(pipe);
  return status == 0 ? output : output + "(ended with " + std::to_string(status) + ")";
}

// Frames keep their own times on the way out: rounded to a guessed rate, some would coincide.
std::string decodeErrors(const std::string& path) {
  return outputOf("ffmpeg -v error -xerror -nostdin -i '" + path +
                  "' -fps_mode passthrough -enc_time_base -1 -f null -");
}

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
  const std::string all =
      outputOf("ffmpeg -v error -nostdin -i '" + path + "' -f rawvideo -pix_fmt rgb24 -");
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
        while (!stop.stop_requested() && !viewer->isClosed()) {
          auto packet = viewer->receive(0.2);
          if (!packet) continue;
          if (packet->type == client::Packet::Type::frame) {
            viewer->acknowledge(packet->frameID);
            ++frames_;
          }
          packets_.push_back(*std::move(packet));
        }
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

void HelperTest::endHelper() { EXPECT_TRUE(!helper || finish() == 0); }

void HelperTest::start(std::vector<std::string> arguments,
                       std::map<std::string, std::string> environment) {
  endHelper();
  slots = tools::slotsFor(transport);
  helper = std::make_unique<tools::HelperProcess>(
      client::LaunchOptions{LUMORA_HELPER, token, std::move(arguments), std::move(environment)},
      slots);
  port = waitForEvent("ready").at("port");
  lastID = 0;
}

std::unique_ptr<client::StreamClient> HelperTest::connect() const {
  return std::make_unique<client::StreamClient>("127.0.0.1", port);
}

std::unique_ptr<client::StreamClient> HelperTest::connectClient() {
  auto made = connect();
  made->sayHello(token);
  waitForStatistics([](const Event& event) { return event["clients"] > 0; });
  return made;
}

Event HelperTest::waitForEvent(const std::string& type, const Wanted& wanted) {
  const client::Deadline deadline(20);
  for (;;) {
    const auto event = helper->nextEvent(type, deadline.millisecondsLeft() / 1000.0);
    if (!event || deadline.millisecondsLeft() == 0)
      throw std::runtime_error("the awaited \"" + type + "\" event did not come");
    if (wanted(*event)) return *event;
  }
}

void HelperTest::feed(FrameSize size, const Pixels& pixels) {
  ASSERT_TRUE(helper->copyFrame(size, ++lastID, pixels));
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
  return status && status->signal == 0 ? status->code : -1;
}

int HelperTest::finish() {
  helper->closeInput();
  return exitCode();
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
  const auto all = Event::parse(
      outputOf("ffprobe -v error -count_frames -show_streams -of json '" + path + "'"));
  return all.at("streams").empty() ? Event::object() : all["streams"][0];
}

void HelperTest::startTake(Event keys) {
  keys.update({{"type", "record_start"}, {"id", takeID}, {"path", path}});
  helper->writeCommand(keys);
}

void HelperTest::stopTake(Event keys) {
  keys.update({{"type", "record_stop"}, {"id", takeID}});
  helper->writeCommand(keys);
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

void HelperTest::turnTo(const std::filesystem::path& file) {
  path = file;
  ++takeID.back();
}

Event HelperTest::take(int count, double framesPerSecond) {
  startTake();
  feedPaced(count, framesPerSecond);
  return saveTake();
}

Event HelperTest::waitForTake(const std::string& state) {
  return waitForEvent("recording", [&](const Event& event) {
    if (event.at("id") != takeID) return false;
    const auto& reached = event.at("state");
    if (reached == state) return true;
    if (reached == "failed" || reached == "saved") throw std::runtime_error(event.dump());
    return false;
  });
}

}  // namespace lumora::tests
