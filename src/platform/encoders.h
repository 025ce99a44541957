#pragma once

#include "platform/compression.h"
#include "platform/dispatch.h"
#include "platform/encoder_settings.h"

namespace lumora {

struct EncoderRequirements {
  bool requireHardwareAccelerated = false;
  bool enableLowLatencyRateControl = false;
};

// Where sessions come from. State queue only.
class Encoders {
 public:
  virtual ~Encoders() = default;
  // A session for `width` × `height` BGRA buffers; null or a status when there can be none. Waits
  // until the encoder of the run is chosen, but for no more than a few seconds of the whole run.
  virtual Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                               const EncoderRequirements& requirements,
                               std::shared_ptr<CompressionSession>& session) = 0;
  // Chooses the encoder of the run in the background, one that works for this preview, of which one
  // is opened, or else for this take. Comes before everything else.
  virtual void choose(const EncoderSettings& preview, const EncoderSettings& take) = 0;
  // Runs `work` on the state queue, never before it returns, once that is done.
  virtual void whenChosen(Work work) = 0;
  // Slowly, in the background, has memory at hand for sessions up to the largest and opens an
  // encoder for the likeliest one.
  virtual void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) = 0;
  // A session of these settings comes next: its encoder is opened at once, in the background.
  virtual void openAhead(const EncoderSettings& settings) = 0;
};

}  // namespace lumora
