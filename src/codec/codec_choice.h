#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/picture_memory.h"
#include "codec/libav_support.h"
#include "platform/encoder_settings.h"

namespace lumora {

class LibavEncoder;
struct CodecChoice;

// Opens an encoder: 0 or an AVERROR. Drivers may take as long as they like.
using OpenEncoder = std::function<Status(const CodecChoice&, const EncoderSettings&,
                                         std::unique_ptr<LibavEncoder>& encoder)>;

// What all encoders of a run have in common.
struct CodecChoice {
  const AVCodec* codec = nullptr;
  std::string preset = {};  // of a software encoder; empty: our own settings
  std::shared_ptr<PicturePool> pictures = {};
  OpenEncoder open = {};
  const AVCodec* substitute = nullptr;  // for a session that `codec` refuses; null: it fails
};

}  // namespace lumora
