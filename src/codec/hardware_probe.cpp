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
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->id != AV_CODEC_ID_H264) continue;
    const auto tried = onDriverThread([self = shared_from_this(), codec, preview, take, whenFound] {
      bestEffort([&] {
        if (self->tryEncoder(*codec, preview, take)) whenFound();
      });
    });
    tried.wait_for(longestOpening);
    if (found() != nullptr) return;
  }
}

bool HardwareProbe::tryEncoder(const AVCodec& codec, const EncoderSettings& preview,
                               const EncoderSettings& take) {
  for (const EncoderSettings& settings : {preview, take}) {
    OpenedEncoder opened = openNow(open_, codec, settings, 0);
    if (!opened.encoder) continue;
    const std::lock_guard hold(mutex_);
    if (found_ != nullptr) return false;
    // Before `found_`, so that those who see that find it open.
    pool_->keep(codec, settings, std::move(opened));
    found_ = &codec;
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
