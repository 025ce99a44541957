#include "codec/hardware_probe.h"

#include <utility>

#include "base/out_of_memory.h"

namespace lumora {

void HardwareProbe::run(const std::vector<std::string>& candidates, const EncoderSettings& preview,
                        const EncoderSettings& take, const std::function<void()>& whenFound) {
  bestEffort([&] { tryInTurn(candidates, preview, take, whenFound); });
  const std::lock_guard hold(mutex_);
  isOver_ = true;
  changed_.notify_all();
}

void HardwareProbe::tryInTurn(const std::vector<std::string>& candidates,
                              const EncoderSettings& preview, const EncoderSettings& take,
                              const std::function<void()>& whenFound) {
  for (const std::string& name : candidates) {
    EncoderSpec spec = spec_;
    spec.codec = avcodec_find_encoder_by_name(name.c_str());
    if (spec.codec == nullptr || spec.codec->id != AV_CODEC_ID_H264) continue;
    const auto tried = onDriverThread([self = shared_from_this(), spec, preview, take, whenFound] {
      bestEffort([&] {
        if (self->tryEncoder(spec, preview, take)) whenFound();
      });
    });
    tried.wait_for(longestOpening);
    if (found() != nullptr) return;
  }
}

bool HardwareProbe::tryEncoder(const EncoderSpec& spec, const EncoderSettings& preview,
                               const EncoderSettings& take) {
  for (const EncoderSettings& settings : {preview, take}) {
    OpenResult opened = openNow(open_, spec, settings, 0);
    if (!opened.encoder) continue;
    const std::lock_guard hold(mutex_);
    if (found_ != nullptr) return false;
    // First: whoever knows that it is found finds it open.
    source_->replaceAhead(spec, settings, std::move(opened));
    found_ = spec.codec;
    changed_.notify_all();
    return true;
  }
  return false;
}

const AVCodec* HardwareProbe::waitUntil(OpeningClock::time_point deadline) const {
  std::unique_lock hold(mutex_);
  changed_.wait_until(hold, deadline, [this] { return found_ != nullptr || isOver_; });
  return found_;
}

}  // namespace lumora
