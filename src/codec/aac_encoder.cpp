#include "codec/aac_encoder.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <algorithm>

namespace lumora {

Status AacEncoder::open(const SoundSettings& settings, std::unique_ptr<SoundEncoder>& encoder) try {
  av_log_set_level(AV_LOG_QUIET);  // we report failures as events
  auto made = std::make_unique<AacEncoder>();
  const Status status = made->openFor(settings);
  if (status == 0) encoder = std::move(made);
  return status;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

Status AacEncoder::openFor(const SoundSettings& settings) {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  context_.reset(avcodec_alloc_context3(codec));
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (!context_ || !packet_ || !frame_) return AVERROR(ENOMEM);
  context_->sample_fmt = AV_SAMPLE_FMT_FLTP;
  context_->sample_rate = settings.trackRate;
  context_->bit_rate = settings.bitRate;
  context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_channel_layout_default(&context_->ch_layout, settings.channels);
  // The encoder's faster method, "fast", distorts loud tones.
  int status = av_opt_set(context_->priv_data, "aac_coder", "twoloop", 0);
  if (status >= 0) status = avcodec_open2(context_.get(), codec, nullptr);
  if (status < 0) return status;
  frame_->format = context_->sample_fmt;
  frame_->nb_samples = soundPacketSamples;
  av_channel_layout_default(&frame_->ch_layout, settings.channels);
  status = av_frame_get_buffer(frame_.get(), 0);
  return status < 0 ? status : openResampler(settings);
}

Status AacEncoder::openResampler(const SoundSettings& settings) {
  SwrContext* made = nullptr;
  int status =
      swr_alloc_set_opts2(&made, &context_->ch_layout, context_->sample_fmt, settings.trackRate,
                          &context_->ch_layout, AV_SAMPLE_FMT_S16, settings.sourceRate, 0, nullptr);
  resampler_.reset(made);
  if (status >= 0) status = av_opt_set_int(made, "flags", SWR_FLAG_RESAMPLE, 0);
  return status < 0 ? status : swr_init(made);
}

ByteView AacEncoder::configuration() const {
  return {context_->extradata, static_cast<std::size_t>(context_->extradata_size)};
}

Status AacEncoder::encode(std::span<const std::int16_t> samples, int compensation,
                          SoundPackets& packets) {
  constexpr int million = 1'000'000;
  // The compensation is spread over so many samples that it still runs when the next call of
  // `encode` replaces it.
  constexpr int distance = 2000 * million;
  const int status =
      swr_set_compensation(resampler_.get(), compensation * (distance / million), distance);
  if (status < 0) return status;
  return resample(samples.data(), std::ssize(samples) / context_->ch_layout.nb_channels, packets);
}

// Silence pushes out what the resampler holds.
Status AacEncoder::flush(SoundPackets& packets) {
  end_ = length();
  const std::array<std::int16_t, 2 * soundPacketSamples> silence{};
  Status status = resample(silence.data(), soundPacketSamples, packets);
  if (status == 0 && filled_ > 0) status = encodeFrame(packets);
  return status == 0 ? send(nullptr, packets) : status;
}

std::int64_t AacEncoder::length() const {
  if (end_ != endless) return end_;
  return begin_ + filled_ + swr_get_delay(resampler_.get(), context_->sample_rate);
}

// Resamples `count` samples of each channel, and encodes `frame_` whenever it is full. Stops at the
// end of the track.
Status AacEncoder::resample(const std::int16_t* samples, std::ptrdiff_t count,
                            SoundPackets& packets) {
  const auto* input = reinterpret_cast<const std::uint8_t*>(samples);
  while (begin_ + filled_ < end_) {
    const std::size_t offset = sizeof(float) * static_cast<std::size_t>(filled_);
    std::array<std::uint8_t*, 2> output{};
    for (std::size_t i = 0; i < output.size(); ++i) {
      if (frame_->data[i] != nullptr) output[i] = frame_->data[i] + offset;
    }
    const auto space = std::min<std::int64_t>(soundPacketSamples, end_ - begin_) - filled_;
    const int made = swr_convert(resampler_.get(), output.data(), static_cast<int>(space), &input,
                                 static_cast<int>(count));
    if (made < 0) return made;
    count = 0;  // the resampler holds the rest
    filled_ += made;
    if (filled_ < soundPacketSamples) return 0;
    const Status status = encodeFrame(packets);
    if (status < 0) return status;
  }
  return 0;
}

Status AacEncoder::encodeFrame(SoundPackets& packets) {
  frame_->nb_samples = filled_;
  frame_->pts = begin_;
  const Status status = send(frame_.get(), packets);
  begin_ += filled_;
  filled_ = 0;
  return status < 0 ? status : av_frame_make_writable(frame_.get());
}

// A null `frame` ends the stream: the encoder gives its last packets.
Status AacEncoder::send(const AVFrame* frame, SoundPackets& packets) try {
  int status = avcodec_send_frame(context_.get(), frame);
  while (status >= 0) {
    status = avcodec_receive_packet(context_.get(), packet_.get());
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return 0;
    if (status < 0) return status;
    packets.emplace_back(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_.get());
  }
  return status;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

}  // namespace lumora
