#include "bench/encoders_alone.h"

extern "C" {
#include <libavutil/log.h>
}

#include <barrier>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "codec/encoder_tuning.h"
#include "tools/programs.h"

namespace lumora::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Points a picture's planes at NV12 samples, which the encoder copies.
void usePlanes(AVFrame& frame, std::span<const std::uint8_t> samples) {
  frame.linesize[0] = frame.linesize[1] = frame.width;
  frame.data[0] = const_cast<std::uint8_t*>(samples.data());
  frame.data[1] = frame.data[0] + frame.width * frame.height;
}

class Encoder {
 public:
  explicit Encoder(const EncoderLoad& load) : pictures_(load.pictures) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) throw std::runtime_error("libavcodec has no libx264");
    context_.reset(avcodec_alloc_context3(codec));
    context_->pix_fmt = AV_PIX_FMT_NV12;
    if (tune(*context_, load.preset, ColourMatrix::bt709, load.settings) < 0 ||
        avcodec_open2(context_.get(), codec, nullptr) < 0) {
      throw std::runtime_error("libx264 can't be opened with these settings");
    }
    frame_->format = AV_PIX_FMT_NV12;
    frame_->width = load.settings.width;
    frame_->height = load.settings.height;
    stream_.assign(context_->extradata, context_->extradata + context_->extradata_size);
  }

  void encode(int number) {
    usePlanes(*frame_, pictures_.next(static_cast<std::uint64_t>(number) + 1, 0));
    frame_->pts = number;
    if (avcodec_send_frame(context_.get(), frame_.get()) < 0 ||
        avcodec_receive_packet(context_.get(), packet_.get()) < 0) {
      throw std::runtime_error("libx264 can't encode");
    }
    stream_.insert(stream_.end(), packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_.get());
  }

  Bytes takeStream() { return std::move(stream_); }

 private:
  CameraClip& pictures_;
  CodecContext context_;
  Frame frame_{av_frame_alloc()};
  Packet packet_{av_packet_alloc()};
  Bytes stream_;
};

}  // namespace

EncodersReport encodeAlone(const std::vector<EncoderLoad>& loads, int frames, int framesPerSecond,
                           const std::function<void()>& besideEach) {
  av_log_set_level(AV_LOG_QUIET);
  std::vector<std::unique_ptr<Encoder>> encoders;
  for (const EncoderLoad& load : loads) encoders.push_back(std::make_unique<Encoder>(load));
  std::vector<std::function<void(int)>> work;
  for (const auto& encoder : encoders) {
    work.emplace_back([&encoder](int number) { encoder->encode(number); });
  }
  if (besideEach) work.emplace_back([&besideEach](int) { besideEach(); });
  EncodersReport report;
  const double cpuBefore = tools::ownCPUSeconds();
  const auto start = SteadyClock::now();
  std::barrier together(static_cast<std::ptrdiff_t>(work.size()));
  {
    std::vector<std::jthread> threads;
    for (const auto& each : work) {
      threads.emplace_back([&together, &each, start, frames, framesPerSecond] {
        for (int i = 0; i < frames; ++i) {
          if (framesPerSecond > 0) {
            std::this_thread::sleep_until(
                start + i * std::chrono::nanoseconds(std::chrono::seconds(1)) / framesPerSecond);
          }
          each(i);
          together.arrive_and_wait();
        }
      });
    }
  }
  report.wallSeconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  report.cpuSeconds = tools::ownCPUSeconds() - cpuBefore;
  for (const auto& encoder : encoders) report.streams.push_back(encoder->takeStream());
  return report;
}

}  // namespace lumora::bench
