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
  // A session for `width` × `height` BGRA buffers; null or a status when there can be none. Where
  // only hardware will do it waits until that is found, for a few seconds of the run at most.
  virtual Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                               const EncoderRequirements& requirements,
                               std::shared_ptr<CompressionSession>& session) = 0;
  // In the background: opens an encoder for this preview, and looks for hardware that encodes it,
  // or else this take. Comes before everything else.
  virtual void prepare(const EncoderSettings& preview, const EncoderSettings& take) = 0;
  // Runs `work` on the state queue, never before it returns, once a preview can begin without
  // delay; that does not wait for hardware unless only hardware will do.
  virtual void whenPrepared(Work work) = 0;
  // In the background: slowly has memory at hand for takes up to the largest, then opens an encoder
  // for the likeliest one unless another take has come first.
  virtual void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) = 0;
  // A session of these settings comes next: its encoder is opened at once, in the background.
  virtual void openAhead(const EncoderSettings& settings) = 0;
};

}  // namespace lumora
