#pragma once

#include <string>

#include "codec/libav_support.h"

namespace lumora {

// The encoder of a run.
struct CodecChoice {
  const AVCodec* codec = nullptr;
  std::string preset = {};  // of a software encoder; empty: our own settings
};

}  // namespace lumora
