#pragma once

#include <memory>
#include <string>

#include "base/picture_memory.h"
#include "codec/libav_support.h"

namespace lumora {

// What the encoders of a run have in common.
struct EncoderSpec {
  const AVCodec* codec = nullptr;
  std::string preset = {};  // of a software encoder; empty: our own settings
  std::shared_ptr<PicturePool> pictures = {};
};

}  // namespace lumora
