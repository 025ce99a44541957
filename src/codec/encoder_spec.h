#pragma once

#include <memory>
#include <string>

#include "base/picture_memory.h"
#include "codec/libav_support.h"

namespace lumora {

// Which encoder, and what all encoders of the run share.
struct EncoderSpec {
  const AVCodec* codec = nullptr;
  std::string preset = {};  // of a software encoder; empty: our own settings
  std::shared_ptr<PicturePool> pictures = {};
};

}  // namespace lumora
