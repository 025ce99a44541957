#pragma once

// Encoders that are open but idle. Opening one and touching its memory for the first time takes
// longer than a frame lasts at 60 a second, so a session takes over a spare one where its settings
// fit, and gives it back in the end. Any thread.

#include <memory>
#include <mutex>
#include <vector>

#include "platform/libav_encoder.h"

namespace lumora {

class SpareEncoders {
 public:
  // A spare encoder of these settings, or null.
  std::unique_ptr<LibavEncoder> take(const EncoderSettings& settings);
  // Keeps `encoder`, in place of another one for the same kind of session.
  void give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);

 private:
  struct Spare {
    EncoderSettings settings;
    std::unique_ptr<LibavEncoder> encoder;
  };

  std::mutex mutex_;
  std::vector<Spare> spares_;  // at most one per profile level
};

}  // namespace lumora
