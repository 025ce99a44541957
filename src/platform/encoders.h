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
  // Chooses the encoder of the run, in the background, and opens one of these settings. Comes
  // first.
  virtual void prepare(const EncoderSettings& expected) = 0;
  // Sessions of these settings may come, the first most likely: opens an encoder for that one and
  // has memory at hand for any, slowly, in the background.
  virtual void expect(const std::vector<EncoderSettings>& settings) = 0;
  // A session of these settings comes next: opens its encoder before all others, unless one is
  // open.
  virtual void openSoon(const EncoderSettings& settings) = 0;
  // Runs `work` on the state queue, never before it returns, once what was to be prepared is open
  // or known to fail.
  virtual void whenOpen(Work work) = 0;
};

}  // namespace lumora
