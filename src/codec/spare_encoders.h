#pragma once

// Encoders that are open but idle. Opening one and touching its memory for the first time takes
// longer than a frame lasts at 60 a second, so a session takes over a spare one where its settings
// fit, and gives it back in the end. Any thread.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "codec/libav_encoder.h"

namespace lumora {

class SpareEncoders {
 public:
  // Announces one encoder of each of these settings: somebody is opening them and gives them.
  void expect(const std::vector<EncoderSettings>& settings);
  bool isExpected(const EncoderSettings& settings);
  // A spare encoder of these settings, or null. Waits for an expected one.
  std::unique_ptr<LibavEncoder> take(const EncoderSettings& settings);
  // Keeps `encoder`, in place of another one for the same kind of session; null when an expected
  // one could not be opened.
  void give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);

 private:
  struct Spare {
    EncoderSettings settings;
    std::unique_ptr<LibavEncoder> encoder;
  };

  std::mutex mutex_;  // guards the rest
  std::condition_variable given_;
  std::vector<EncoderSettings> expected_;
  std::vector<Spare> spares_;  // at most one per kind
};

}  // namespace lumora
