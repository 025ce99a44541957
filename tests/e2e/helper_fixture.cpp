#include "tests/e2e/helper_fixture.h"

#include <stdlib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fstream>
#include <numbers>
#include <span>

namespace lumora::tests {

std::string helperProgram() {
  const char* other = std::getenv("LUMORA_HELPER");
  return other != nullptr ? other : LUMORA_HELPER;
}

Pixels quarters(FrameSize size, const Quarters& colours) {
  Pixels pixels;
  for (int i = 0; i < size.width * size.height; ++i) {
    const bool isBottom = i / size.width < size.height / 2;
    const bool isRight = i % size.width >= size.width / 2;
    const auto& [red, green, blue] = colours[(isBottom ? 2U : 0U) + (isRight ? 1U : 0U)];
    pixels.insert(pixels.end(), {red, green, blue, 255});
  }
  return pixels;
}

std::string text(FrameSize size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

Pixels bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Pixels(std::istreambuf_iterator<char>(file), {});
}

std::string fileOf(const std::string& path, const Pixels& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  return path;
}

void ffmpeg(const std::string& arguments) {
  EXPECT_EQ(outputOf("ffmpeg -v error -xerror -nostdin -y " + arguments), "");
}

Pixels made(const std::string& file, FrameSize size, const Pixels& picture,
            const std::string& arguments) {
  const std::string raw = fileOf(file + ".rgba", picture);
  ffmpeg("-f rawvideo -pix_fmt rgba -video_size " + text(size) + " -i " + tools::shellQuoted(raw) +
         " -vf " + arguments + " " + tools::shellQuoted(file));
  return bytesOf(file);
}

void expectQuarters(const std::string& path, FrameSize size, FrameSize camera,
                    const Quarters& colours) {
  const std::string last = path + ".rgb";
  ffmpeg("-i " + tools::shellQuoted(path) + " -fps_mode passthrough -enc_time_base -1 -vf " +
         exactScale + ",format=rgb24 -c:v rawvideo -f image2 -update 1 " +
         tools::shellQuoted(last));
  const Pixels pixels = bytesOf(last);
  std::filesystem::remove(last);
  ASSERT_EQ(pixels.size(), size.rgbaBytes() / 4 * 3);
  // `x` and `y` are distances from the middle, as fractions of the picture's width and height.
  const auto expect = [&](double x, double y, const Rgb& colour) {
    const int column = static_cast<int>((0.5 + x) * size.width);
    const int row = static_cast<int>((0.5 + y) * size.height);
    auto at = static_cast<std::size_t>(row * size.width + column) * 3;
    for (const int level : {colour.red, colour.green, colour.blue})
      EXPECT_NEAR(pixels.at(at++), level, 3) << column << "," << row;
  };
  const double across = 1.0 * size.width / camera.width, down = 1.0 * size.height / camera.height;
  const double width = std::min(down / across, 1.0), height = std::min(across / down, 1.0);
  for (const double x : {-0.45, -0.05, 0.05, 0.45})
    for (const double y : {-0.45, -0.05, 0.05, 0.45})
      expect(x * width, y * height, colours[(y > 0 ? 2U : 0U) + (x > 0 ? 1U : 0U)]);
  constexpr double bar = 0.015;
  for (const double side : {-1.0, 1.0}) {
    if (width < 1) expect(side * (width / 2 + bar), 0, {0, 0, 0});
    if (height < 1) expect(0, side * (height / 2 + bar), {0, 0, 0});
  }
}

Decoded decode(const std::string& path) {
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* file = nullptr;
  Decoded all;
  if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) != 0) return all;
  std::vector<AVCodecContext*> decoders;
  for (const AVStream* track : std::span(file->streams, file->nb_streams)) {
    decoders.push_back(avcodec_alloc_context3(avcodec_find_decoder(track->codecpar->codec_id)));
    decoders.back()->err_recognition = AV_EF_EXPLODE;
    avcodec_parameters_to_context(decoders.back(), track->codecpar);
    avcodec_open2(decoders.back(), nullptr, nullptr);
  }
  static AVPacket* const packet = av_packet_alloc();
  static AVFrame* const frame = av_frame_alloc();
  const auto feed = [&](AVCodecContext* decoder, const AVPacket* next) {
    const bool isTaken = avcodec_send_packet(decoder, next) == 0;
    while (avcodec_receive_frame(decoder, frame) == 0)
      all.frames += decoder->codec_type == AVMEDIA_TYPE_VIDEO ? 1 : 0;
    return isTaken;
  };
  while (av_read_frame(file, packet) == 0 && (packet->flags & AV_PKT_FLAG_CORRUPT) == 0) {
    AVCodecContext* const decoder = decoders.at(static_cast<std::size_t>(packet->stream_index));
    if (!feed(decoder, packet)) break;
    const AVRational unit = file->streams[packet->stream_index]->time_base;
    double& end = decoder->codec_type == AVMEDIA_TYPE_VIDEO ? all.pictures : all.sound;
    end = std::max(end, static_cast<double>(packet->pts + packet->duration) * av_q2d(unit));
    av_packet_unref(packet);
  }
  av_packet_unref(packet);
  for (AVCodecContext*& decoder : decoders) {
    feed(decoder, nullptr);
    avcodec_free_context(&decoder);
  }
  avformat_close_input(&file);
  return all;
}

Event probe(const std::string& path) {
  const std::string command = "ffprobe -v error -count_frames -show_streams -of json ";
  return Event::parse(outputOf(command + tools::shellQuoted(path))).at("streams").at(0);
}

void expectKeys(const Event& event, const Event& wanted) {
  for (const auto& [key, value] : wanted.items()) EXPECT_EQ(event.at(key), value) << key;
}

void HelperTest::SetUp() {
  // Without a handler, a write to an ended helper would end the test. SIG_IGN would do, too, but
  // the helper would inherit it.
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
  const bool shares = transport == client::FrameTransport::memory;
  slots = shares ? client::FrameSlots::makeShared(format) : nullptr;
  sigset_t all, usual;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &usual);  // the helper inherits this mask
  helper = std::make_unique<HelperProcess>(
      client::LaunchOptions{helperProgram(), token, std::move(arguments), std::move(environment),
                            slots ? slots->descriptor() : -1, format.text()});
  pthread_sigmask(SIG_SETMASK, &usual, nullptr);
  lastID = 0;
  heardUntil = 0;
  takeID.back() = '0';
}

int HelperTest::exitCode() {
  const auto end = helper->wait(Seconds(20));
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
  for (const client::Deadline deadline(Seconds(20)); slots && !(frame = slots->acquire(size));) {
    ASSERT_TRUE(helper->takesInput() && deadline.left() > Seconds(0));
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  if (frame) frame->copyFrom(pixels);
  ASSERT_TRUE(frame ? helper->writeFrame(*frame, ++lastID)
                    : helper->writePixels(size, ++lastID, pixels));
}

void HelperTest::feedUntil(const std::function<bool()>& isEnough, FrameSize size,
                           const std::vector<Pixels>& pictures, double framesPerSecond) {
  if (pictures.empty()) return feedUntil(isEnough, size, {quarters(size)}, framesPerSecond);
  const double patience = uptime() + 100;
  auto due = std::chrono::steady_clock::now();
  for (std::size_t i = 0; !isEnough(); ++i) {
    ASSERT_LT(uptime(), patience);
    std::this_thread::sleep_until(due);
    due += std::chrono::microseconds(std::lround(1e6 / framesPerSecond));
    feed(size, pictures[i % pictures.size()]);
    if (HasFatalFailure()) return;  // the helper has ended or hangs
  }
}

void HelperTest::feedSound(double until, double loudFrom) {
  constexpr int rate = 48000, count = rate / 50;
  constexpr double length = 1.0 * count / rate;
  if (heardUntil == 0) heardUntil = until - length;
  for (; heardUntil + length < until + 1e-6; heardUntil += length) {
    std::vector<std::int16_t> samples;
    for (int i = 0; i < count; ++i) {
      const double since = heardUntil + 1.0 * i / rate - loudFrom;
      const double level = since < 0 ? 0 : 20'000 * std::sin(2000 * std::numbers::pi * since);
      samples.insert(samples.end(), 2, static_cast<std::int16_t>(level));
    }
    const auto bytes = static_cast<std::uint32_t>(samples.size() * sizeof(std::int16_t));
    const auto id = static_cast<std::uint64_t>(std::llround(heardUntil * 1e6));
    helper->writeBytes(client::recordHeader(bytes, 0, 0, id));
    helper->writeBytes({reinterpret_cast<const std::uint8_t*>(samples.data()), bytes});
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
  EXPECT_EQ(movie["nb_frames"], movie["nb_read_frames"]);  // the movie's tables are complete
  EXPECT_EQ(movie["nb_read_frames"], std::to_string(failed.value("kept_frames", 0)));
  EXPECT_NEAR(movie["duration_ts"].get<double>() / 60000, failed.value("kept_duration", 0.0), 1e-4);
  return kept;
}

}  // namespace lumora::tests
