#pragma once

// An open H.264 encoder of libavcodec. Takes pictures and answers each with a sample at once.
// The caller serialises the calls.

#include <string>

#include "base/picture_memory.h"
#include "codec/libav_support.h"
#include "platform/encoder_settings.h"

namespace lumora {

class LibavEncoder {
 public:
  // 0 or an AVERROR. With an empty `preset` libx264 gets our own settings.
  // `frames` is the format of the run's frames. The encoder is opened for their matrix and, if
  // possible, for their layout. The pictures to encode may have other layouts and ranges.
  static Status open(const AVCodec& codec, const std::string& preset, const PixelFormat& frames,
                     const std::shared_ptr<PicturePool>& pictures, const EncoderSettings& settings,
                     std::unique_ptr<LibavEncoder>& encoder);

  // Fills the buffer and encodes its picture, which must have the settings' size. Either sets
  // `sample` and returns 0, or returns `fillingFailed` or an AVERROR. If the picture is read in
  // place, the buffer is released after the encoding. Otherwise the picture is copied, and the
  // buffer is released before the encoding. Never throws.
  Status encode(std::shared_ptr<PixelBuffer> buffer, bool forceKeyFrame,
                std::shared_ptr<const EncodedSample>& sample);

  // Encodes grey pictures: a key frame, then some that depend on it. 0 or an AVERROR. Fails for an
  // encoder that delays pictures: we need each sample before we send the next picture.
  Status encodeGrey(int pictures);

 private:
  LibavEncoder(const PixelFormat& frames, std::shared_ptr<PicturePool> pictures)
      : frames_(frames), pictures_(std::move(pictures)) {}
  Status openFor(AVPixelFormat format, const AVCodec& codec, const std::string& preset,
                 const EncoderSettings& settings);
  Status openHardwareFrames();
  Status allocatePicture();
  bool canBorrow(const PictureView& picture) const;
  Status borrow(std::shared_ptr<PixelBuffer> buffer);
  Status copy(const PictureView& picture);
  Status upload(const AVFrame& from);
  Status encodeFrame(AVFrame& frame, bool forceKeyFrame,
                     std::shared_ptr<const EncodedSample>& sample);
  std::shared_ptr<const EncodedSample> makeSample(ByteView stream);
  ColourDescription colour() const;
  bool takeParameterSet(ByteView unit);

  const PixelFormat frames_;
  const std::shared_ptr<PicturePool> pictures_;
  CodecContext context_;
  Frame picture_;   // in our memory
  Frame borrowed_;  // a buffer's planes
  Frame uploaded_;  // on the device; null if the encoder reads system memory
  Packet packet_;
  // The number of the next picture. It is also the picture's time, in frame intervals, because rate
  // control expects pictures at the session's rate. If another session uses the encoder later, its
  // numbers continue from here.
  std::int64_t nextTime_ = 0;
  Status failure_ = 0;  // of libavcodec; if negative, the encoder is not called again
  Bytes sequenceSet_;   // the latest parameter sets
  Bytes pictureSet_;
  std::shared_ptr<const FormatDescription> format_;
};

}  // namespace lumora
