#pragma once

#include "codec/spare_encoders.h"

namespace lumora {

// Where sessions get their encoders from, and where these go in the end. Any thread.
struct EncoderSource {
  EncoderSpec spec;
  OpenEncoder open;
  const AVCodec* substitute;  // for a session that `spec.codec` refuses; null: it fails
  std::shared_ptr<SpareEncoders> spares;

  // A spare encoder or a new one, within a second: spare ones of other settings make room for it
  // where a driver serves no more, then the substitute takes its place.
  OpenResult take(const EncoderSettings& settings) const;
  // Keeps a sound encoder for the next session; a substitute shall not stand in its way.
  void giveBack(const EncoderSettings& settings, OpenResult opened) const;
  // Opens the spare encoder that is wanted.
  void openWanted() const;
};

}  // namespace lumora
