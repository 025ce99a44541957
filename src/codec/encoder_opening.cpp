#include "codec/encoder_opening.h"

#include <algorithm>
#include <string_view>
#include <system_error>

#include "base/thread.h"
#include "codec/allowed_encoders.h"

namespace lumora {

bool isHardware(const AVCodec& codec) {
  const auto isNamed = [&](std::string_view name) { return name == codec.name; };
  return std::ranges::none_of(softwareEncoders, isNamed);
}

OpenedEncoder openNow(const EncoderFactory& open, const AVCodec& codec,
                      const EncoderSettings& settings, int pictures) try {
  constexpr int picturesThatShowADriver = 2;
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

// If a driver hangs, the thread that called the driver is left behind.
OpenedEncoder openInTime(const EncoderFactory& open, const AVCodec& codec,
                         const EncoderSettings& settings, int pictures) {
  if (!isHardware(codec)) return openNow(open, codec, settings, pictures);
  try {
    auto opened = startTask("lumora.driver", [open, &codec, settings, pictures] {
      return openNow(open, codec, settings, pictures);
    });
    if (opened.wait_for(longestOpening) == std::future_status::ready) return opened.get();
    return {AVERROR(ETIMEDOUT)};
  } catch (const std::system_error&) {
    return {AVERROR(EAGAIN)};  // no thread
  } catch (const std::exception&) {
    return {AVERROR(ENOMEM)};
  }
}

}  // namespace lumora
