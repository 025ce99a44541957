#pragma once

// Resamples sound with libswresample, then encodes it as AAC-LC with libavcodec's own encoder. The
// resampler can make the sound longer or shorter from any sample on. It runs even if source and
// track have the same rate: starting it in the middle of the sound would click.

extern "C" {
#include <libswresample/swresample.h>
}

#include <limits>

#include "codec/libav_support.h"
#include "platform/sound.h"

namespace lumora {

class AacEncoder final : public SoundEncoder {
 public:
  // 0 or an AVERROR. Never throws.
  static Status open(const SoundSettings& settings, std::unique_ptr<SoundEncoder>& encoder);

  ByteView configuration() const override;
  int priming() const override { return context_->initial_padding; }
  Status encode(std::span<const std::int16_t> samples, int compensation,
                SoundPackets& packets) override;
  Status flush(SoundPackets& packets) override;
  std::int64_t length() const override;

 private:
  static constexpr auto endless = std::numeric_limits<std::int64_t>::max();
  using Resampler = std::unique_ptr<SwrContext, FreeHandle<swr_free>>;

  Status openFor(const SoundSettings& settings);
  Status openResampler(const SoundSettings& settings);
  Status resample(const std::int16_t* samples, std::ptrdiff_t count, SoundPackets& packets);
  Status encodeFrame(SoundPackets& packets);
  Status send(const AVFrame* frame, SoundPackets& packets);

  CodecContext context_;
  Resampler resampler_;
  Frame frame_;  // the next samples of the track
  Packet packet_;
  std::int64_t begin_ = 0;      // of `frame_`, in samples of the track
  std::int64_t end_ = endless;  // of the track, in samples; set by `flush`
  int filled_ = 0;              // samples in `frame_`
};

}  // namespace lumora
