#include "codec/encoder_source.h"

#include <utility>

namespace lumora {

OpenResult EncoderSource::take(const EncoderSettings& settings) const {
  const auto deadline = OpeningClock::now() + longestOpening;
  if (auto spare = spares->take(settings, deadline)) return {0, std::move(spare)};
  OpenResult opened = openBy(deadline, open, spec, settings, 0);
  // A driver that hangs would hang in closing, too.
  if (opened.status != 0 && opened.status != AVERROR(ETIMEDOUT) && spares->closeAll()) {
    opened = openBy(deadline, open, spec, settings, 0);
  }
  if (opened.status == 0 || substitute == nullptr) return opened;
  EncoderSpec instead = spec;
  instead.codec = substitute;
  opened = openBy(deadline, open, instead, settings, 0);
  opened.isSubstitute = true;
  return opened;
}

void EncoderSource::giveBack(const EncoderSettings& settings, OpenResult opened) const {
  if (!opened.isSubstitute) spares->give(settings, std::move(opened.encoder));
}

void EncoderSource::openWanted() const {
  const auto wanted = spares->beginOpening();
  if (!wanted) return;
  auto opened = openBy(OpeningClock::now() + longestOpening, open, spec, *wanted, 0);
  spares->endOpening(*wanted, std::move(opened.encoder));
}

}  // namespace lumora
