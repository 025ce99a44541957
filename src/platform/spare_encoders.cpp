#include "platform/spare_encoders.h"

#include <algorithm>
#include <utility>

namespace lumora {

std::unique_ptr<LibavEncoder> SpareEncoders::take(const EncoderSettings& settings) {
  const std::lock_guard hold(mutex_);
  const auto found = std::ranges::find(spares_, settings, &Spare::settings);
  if (found == spares_.end()) return nullptr;
  auto encoder = std::move(found->encoder);
  spares_.erase(found);
  return encoder;
}

void SpareEncoders::give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder) {
  Spare replaced{settings, std::move(encoder)};  // what it holds in the end is freed unlocked
  const std::lock_guard hold(mutex_);
  const auto same = [&](const Spare& spare) { return spare.settings.profile == settings.profile; };
  const auto found = std::ranges::find_if(spares_, same);
  if (found != spares_.end())
    std::swap(*found, replaced);
  else
    spares_.push_back(std::move(replaced));
}

}  // namespace lumora
