#include "codec/spare_encoders.h"

#include <algorithm>
#include <utility>

namespace lumora {

void SpareEncoders::expect(const std::vector<EncoderSettings>& settings) {
  const std::lock_guard hold(mutex_);
  expected_.insert(expected_.end(), settings.begin(), settings.end());
}

bool SpareEncoders::isExpected(const EncoderSettings& settings) {
  const std::lock_guard hold(mutex_);
  return std::ranges::find(expected_, settings) != expected_.end();
}

std::unique_ptr<LibavEncoder> SpareEncoders::take(const EncoderSettings& settings) {
  std::unique_lock hold(mutex_);
  given_.wait(hold, [&] { return std::ranges::find(expected_, settings) == expected_.end(); });
  const auto found = std::ranges::find(spares_, settings, &Spare::settings);
  if (found == spares_.end()) return nullptr;
  auto encoder = std::move(found->encoder);
  spares_.erase(found);
  return encoder;
}

void SpareEncoders::give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder) {
  Spare replaced{settings, std::move(encoder)};  // what it holds in the end is freed unlocked
  const std::lock_guard hold(mutex_);
  const auto awaited = std::ranges::find(expected_, settings);
  if (awaited != expected_.end()) expected_.erase(awaited);
  given_.notify_all();
  if (!replaced.encoder) return;
  const auto same = [&](const Spare& spare) { return spare.settings.kind == settings.kind; };
  const auto found = std::ranges::find_if(spares_, same);
  if (found != spares_.end())
    std::swap(*found, replaced);
  else
    spares_.push_back(std::move(replaced));
}

}  // namespace lumora
