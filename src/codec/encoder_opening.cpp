#include "codec/encoder_opening.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "codec/allowed_encoders.h"
#include "codec/memory_pixel_buffers.h"

namespace lumora {
namespace {

constexpr int picturesThatShowADriver = 2;

Status makeGreyBuffer(const EncoderSpec& spec, const EncoderSettings& settings,
                      std::shared_ptr<PixelBuffer>& buffer) {
  MemoryPixelBufferPool pool(settings.width, settings.height, spec.pictures);
  if (const Status status = pool.create(1, buffer); status != 0) return status;
  const MutableImageView view = buffer->lock();
  std::memset(view.pixels, 128, static_cast<std::size_t>(view.stride * view.height));
  buffer->unlock();
  return 0;
}

// A key frame, then pictures that depend on it. An encoder that holds pictures back fails here: it
// is of no use, since one frame is in flight at a time.
Status encodeGrey(LibavEncoder& encoder, const EncoderSpec& spec, const EncoderSettings& settings,
                  int pictures) {
  std::shared_ptr<PixelBuffer> buffer;
  Status status = makeGreyBuffer(spec, settings, buffer);
  for (int i = 0; i < pictures && status == 0; ++i) {
    std::shared_ptr<const EncodedSample> sample;
    status = encoder.encode(buffer->picture(), i == 0, sample);
  }
  return status;
}

}  // namespace

bool isHardware(const AVCodec& codec) { return std::strcmp(codec.name, softwareEncoder) != 0; }

OpenResult openNow(const OpenEncoder& open, const EncoderSpec& spec,
                   const EncoderSettings& settings, int pictures) try {
  if (isHardware(*spec.codec)) pictures = std::max(pictures, picturesThatShowADriver);
  OpenResult opened;
  opened.status = open(spec, settings, opened.encoder);
  if (opened.status == 0 && pictures > 0) {
    opened.status = encodeGrey(*opened.encoder, spec, settings, pictures);
  }
  if (opened.status != 0) opened.encoder.reset();
  return opened;
} catch (const std::bad_alloc&) {
  return {AVERROR(ENOMEM)};
} catch (const std::exception&) {
  return {AVERROR_EXTERNAL};
}

OpenResult openBy(OpeningClock::time_point deadline, const OpenEncoder& open,
                  const EncoderSpec& spec, const EncoderSettings& settings, int pictures) {
  if (!isHardware(*spec.codec)) return openNow(open, spec, settings, pictures);
  if (OpeningClock::now() >= deadline) return {AVERROR(ETIMEDOUT)};
  try {
    auto later = onDriverThread(
        [open, spec, settings, pictures] { return openNow(open, spec, settings, pictures); });
    if (later.wait_until(deadline) != std::future_status::ready) return {AVERROR(ETIMEDOUT)};
    return later.get();
  } catch (const std::system_error&) {
    return {AVERROR(EAGAIN)};  // no thread to be had
  } catch (const std::exception&) {
    return {AVERROR(ENOMEM)};
  }
}

void touchPixelBuffer(const EncoderSpec& spec, const EncoderSettings& settings) {
  std::shared_ptr<PixelBuffer> buffer;
  makeGreyBuffer(spec, settings, buffer);
}

}  // namespace lumora
