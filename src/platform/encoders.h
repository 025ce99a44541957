#pragma once

#include "platform/dispatch.h"
#include "platform/encoder_settings.h"

namespace lumora {

struct EncoderRequirements {
  bool requireHardwareAccelerated = false;
  bool enableLowLatencyRateControl = false;
};

// Makes sessions, and opens encoders in the background before they are needed. State queue only.
class Encoders {
 public:
  virtual ~Encoders() = default;
  // Makes a session for `width` × `height` pictures. On failure `session` is null, or the returned
  // status is not 0.
  // If software encoders are missing or not allowed, waits until the search for hardware ends.
  // Only `prepare` starts this search, which takes a few seconds at most.
  virtual Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                               const EncoderRequirements& requirements,
                               std::shared_ptr<CompressionSession>& session) = 0;
  // Called first. In the background: opens an encoder for this preview, and looks for hardware that
  // can encode this preview, or at least this take.
  virtual void prepare(const EncoderSettings& preview, const EncoderSettings& take) = 0;
  // Runs `work` on the state queue as soon as a preview can begin without delay, but never before
  // this call has returned. The search for hardware delays `work` only if software encoders are
  // missing or not allowed.
  virtual void whenPrepared(Work work) = 0;
  // In the background: if no hardware has been found yet, slowly touches as much memory as the
  // largest take needs. Then, with or without hardware, opens an encoder for the likeliest take.
  // Stops when `openAhead` is called.
  virtual void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) = 0;
  // In the background: opens the encoder of the take that starts now.
  virtual void openAhead(const EncoderSettings& settings) = 0;
};

}  // namespace lumora
