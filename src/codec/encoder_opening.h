#pragma once

// Opening an encoder, with a limit on how long a driver may take. Any thread.

#include <chrono>
#include <functional>

#include "codec/libav_encoder.h"

namespace lumora {

// How long a driver may take to open an encoder.
constexpr std::chrono::seconds longestOpening{1};

// Opens an encoder: 0 or an AVERROR. May block for as long as a driver does.
using EncoderFactory = std::function<Status(const AVCodec&, const EncoderSettings&,
                                            std::unique_ptr<LibavEncoder>& encoder)>;

// An open encoder, or the AVERROR that explains why there is none.
struct OpenedEncoder {
  Status status = 0;
  std::unique_ptr<LibavEncoder> encoder = {};
  bool isSubstitute = false;  // `encoder` is of another codec than was requested
};

// Whether `codec` is an encoder of a device driver. Drivers may hang, refuse a session or a size,
// and limit how many encoders are open.
bool isHardware(const AVCodec& codec);

// Opens an encoder and has it encode `pictures` grey pictures. Hardware encodes at least two, a key
// frame and one that depends on it: some drivers open an encoder and then refuse its pictures.
// Blocks for as long as the driver does. Never throws.
OpenedEncoder openNow(const EncoderFactory& open, const AVCodec& codec,
                      const EncoderSettings& settings, int pictures);

// Like `openNow`, but gives up with AVERROR(ETIMEDOUT) if hardware takes longer than
// `longestOpening`. Never throws.
OpenedEncoder openInTime(const EncoderFactory& open, const AVCodec& codec,
                         const EncoderSettings& settings, int pictures);

}  // namespace lumora
