#pragma once

#include <vector>

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
  // until the encoder of the run is chosen, but for no more than a second of the whole run.
  virtual Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                               const EncoderRequirements& requirements,
                               std::shared_ptr<CompressionSession>& session) = 0;
  // Opens encoders of these settings ahead of their sessions, in the background. Comes before the
  // first session.
  virtual void openAhead(const std::vector<EncoderSettings>& settings) = 0;
  // Runs `work` on the state queue, never before it returns, once all of them are open or known to
  // fail.
  virtual void whenOpen(Work work) = 0;
};

}  // namespace lumora
