#include "codec/encoder_opening.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "codec/allowed_encoders.h"

namespace lumora {
namespace {

constexpr int picturesThatShowADriver = 2;

}  // namespace

bool isHardware(const AVCodec& codec) { return std::strcmp(codec.name, softwareEncoder) != 0; }

OpenedEncoder openNow(const EncoderFactory& open, const AVCodec& codec,
                      const EncoderSettings& settings, int pictures) try {
  if (isHardware(codec)) pictures = std::max(pictures, picturesThatShowADriver);
  OpenedEncoder opened;
  opened.status = open(codec, settings, opened.encoder);
  if (opened.status == 0) opened.status = opened.encoder->encodeGrey(pictures);
  if (opened.status != 0) opened.encoder.reset();
  return opened;
} catch (const std::bad_alloc&) {
  return {AVERROR(ENOMEM)};
} catch (const std::exception&) {
  return {AVERROR_EXTERNAL};
}

OpenedEncoder openBy(OpeningClock::time_point deadline, const EncoderFactory& open,
                     const AVCodec& codec, const EncoderSettings& settings, int pictures) {
  if (!isHardware(codec)) return openNow(open, codec, settings, pictures);
  if (OpeningClock::now() >= deadline) return {AVERROR(ETIMEDOUT)};
  try {
    auto later = onDriverThread(
        [open, &codec, settings, pictures] { return openNow(open, codec, settings, pictures); });
    if (later.wait_until(deadline) != std::future_status::ready) return {AVERROR(ETIMEDOUT)};
    return later.get();
  } catch (const std::system_error&) {
    return {AVERROR(EAGAIN)};  // no thread
  } catch (const std::exception&) {
    return {AVERROR(ENOMEM)};
  }
}

}  // namespace lumora
