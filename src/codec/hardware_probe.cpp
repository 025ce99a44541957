#include "codec/hardware_probe.h"

#include <future>
#include <thread>
#include <utility>

#include "base/out_of_memory.h"
#include "base/thread_name.h"

namespace lumora {

void HardwareProbe::run(const std::vector<std::string>& candidates, const EncoderSettings& preview,
                        const EncoderSettings& take) {
  for (const std::string& name : candidates) {
    EncoderSpec spec = spec_;
    spec.codec = avcodec_find_encoder_by_name(name.c_str());
    if (spec.codec == nullptr || spec.codec->id != AV_CODEC_ID_H264) continue;
    bestEffort([&] {
      std::packaged_task<void()> task([self = shared_from_this(), spec, preview, take] {
        nameThread("lumora.driver");
        bestEffort([&] { self->tryEncoder(spec, preview, take); });
      });
      const auto done = task.get_future();
      std::thread(std::move(task)).detach();
      done.wait_for(longestOpening);
    });
    if (found() != nullptr) break;
  }
  const std::lock_guard hold(mutex_);
  isOver_ = true;
  changed_.notify_all();
}

void HardwareProbe::tryEncoder(const EncoderSpec& spec, const EncoderSettings& preview,
                               const EncoderSettings& take) {
  for (const EncoderSettings& settings : {preview, take}) {
    OpenResult opened = openNow(open_, spec, settings, 0);
    if (!opened.encoder) continue;
    if (!claim()) return;
    bestEffort([&] { foundHandler_(spec, settings, std::move(opened)); });
    return publish(*spec.codec);
  }
}

bool HardwareProbe::claim() {
  const std::lock_guard hold(mutex_);
  return !std::exchange(isClaimed_, true);
}

void HardwareProbe::publish(const AVCodec& codec) {
  const std::lock_guard hold(mutex_);
  found_ = &codec;
  changed_.notify_all();
}

const AVCodec* HardwareProbe::found() const {
  const std::lock_guard hold(mutex_);
  return found_;
}

const AVCodec* HardwareProbe::waitUntil(OpeningClock::time_point deadline) const {
  std::unique_lock hold(mutex_);
  changed_.wait_until(hold, deadline, [this] { return found_ != nullptr || isOver_; });
  return found_;
}

}  // namespace lumora
