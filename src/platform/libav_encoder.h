#pragma once

// One opened H.264 encoder of libavcodec: BGRA pictures in, samples out, nothing held back. Its
// caller serialises the calls.

#include <memory>
#include <string>

#include "platform/compression.h"
#include "platform/libav_support.h"

namespace lumora {

struct EncoderSettings {
  int width = 0;   // pixels
  int height = 0;  // pixels
  ProfileLevel profile = ProfileLevel::baselineAuto;
  std::int64_t frameRate = 60;         // frames per second, expected
  std::int64_t keyFrameInterval = 60;  // frames, at most
  std::int64_t bitRate = 4'000'000;    // bits per second, average
};

class LibavEncoder {
 public:
  // Opens `codec`: 0 or an AVERROR.
  static Status open(const AVCodec& codec, const EncoderSettings& settings,
                     std::unique_ptr<LibavEncoder>& encoder);

  // Encodes one picture of the settings' size: 0 and a sample, or an AVERROR.
  Status encode(const MutableImageView& picture, std::int64_t time, bool forceKeyFrame,
                std::shared_ptr<const EncodedSample>& sample);

  // The first half of `encode`, for callers that want to let go of `picture` early.
  Status load(const MutableImageView& picture);
  Status encodeLoaded(std::int64_t time, bool forceKeyFrame,
                      std::shared_ptr<const EncodedSample>& sample);

 private:
  LibavEncoder() = default;
  Status openHardwareFrames();
  Status allocatePicture();
  Status upload();
  std::shared_ptr<const EncodedSample> makeSample(ByteView stream);
  void takeParameterSet(Bytes& kept, ByteView unit);

  CodecContext context_;
  BufferRef device_;
  Frame picture_;   // in system memory
  Frame uploaded_;  // on the device, where the encoder wants that
  Packet packet_;
  Bytes sequence_;  // parameter sets as last seen
  Bytes pictureSet_;
  std::shared_ptr<const FormatDescription> format_;
};

}  // namespace lumora
