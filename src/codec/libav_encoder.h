#pragma once

// One opened H.264 encoder of libavcodec: RGB pictures in, samples out, nothing held back. Its
// caller serialises the calls.

#include <memory>

#include "codec/encoder_spec.h"
#include "platform/compression.h"
#include "platform/encoder_settings.h"

namespace lumora {

class LibavEncoder {
 public:
  // 0 or an AVERROR.
  static Status open(const EncoderSpec& spec, const EncoderSettings& settings,
                     std::unique_ptr<LibavEncoder>& encoder);

  // Encodes one picture of the settings' size: 0 and a sample, or an AVERROR.
  Status encode(const BufferPicture& picture, bool forceKeyFrame,
                std::shared_ptr<const EncodedSample>& sample);

  // The first half of `encode`, for callers that want to let go of `picture` early.
  Status load(const BufferPicture& picture);
  Status encodeLoaded(bool forceKeyFrame, std::shared_ptr<const EncodedSample>& sample);

 private:
  LibavEncoder() = default;
  static Status openFor(AVPixelFormat format, const EncoderSpec& spec,
                        const EncoderSettings& settings, std::unique_ptr<LibavEncoder>& encoder);
  Status openHardwareFrames();
  Status allocatePicture();
  Status upload();
  std::shared_ptr<const EncodedSample> makeSample(ByteView stream);
  ColourDescription colour() const;
  bool takeParameterSet(ByteView unit);

  std::shared_ptr<PicturePool> pictures_;
  CodecContext context_;
  BufferRef device_;
  Frame picture_;   // in system memory
  Frame uploaded_;  // on the device, where the encoder wants that
  Packet packet_;
  // Pictures come at the expected rate as far as rate control is concerned. The count goes on over
  // all sessions that the encoder serves.
  std::int64_t nextTime_ = 0;
  Bytes sequence_;  // parameter sets as last seen
  Bytes pictureSet_;
  std::shared_ptr<const FormatDescription> format_;
};

}  // namespace lumora
