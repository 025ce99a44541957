#include "codec/spare_encoders.h"

#include <algorithm>
#include <utility>

#include "base/out_of_memory.h"

namespace lumora {

void SpareEncoders::want(const EncoderSettings& settings) {
  const std::lock_guard hold(mutex_);
  wanted_ = settings;
  everWanted_ = true;
}

void SpareEncoders::wantFirst(const EncoderSettings& settings) {
  const std::lock_guard hold(mutex_);
  if (!everWanted_) wanted_ = settings;
}

std::optional<EncoderSettings> SpareEncoders::beginOpening() {
  std::unique_ptr<LibavEncoder> replaced;  // closed unlocked
  const std::lock_guard hold(mutex_);
  const auto wanted = std::exchange(wanted_, std::nullopt);
  if (!wanted || std::ranges::find(spares_, *wanted, &Spare::settings) != spares_.end()) {
    return std::nullopt;
  }
  opening_ = wanted;
  replaced = releaseSameKind(*wanted);
  return wanted;
}

void SpareEncoders::endOpening(const EncoderSettings& settings,
                               std::unique_ptr<LibavEncoder> encoder) {
  if (encoder) bestEffort([&] { give(settings, std::move(encoder)); });
  const std::lock_guard hold(mutex_);
  opening_.reset();
  opened_.notify_all();
}

std::unique_ptr<LibavEncoder> SpareEncoders::take(const EncoderSettings& settings,
                                                  OpeningClock::time_point deadline) {
  std::unique_lock hold(mutex_);
  // What nobody has begun to open its user opens itself.
  if (wanted_ == settings) wanted_.reset();
  opened_.wait_until(hold, deadline, [&] { return opening_ != settings; });
  return release(std::ranges::find(spares_, settings, &Spare::settings));
}

void SpareEncoders::give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder) {
  std::unique_ptr<LibavEncoder> replaced;  // closed unlocked
  const std::uint64_t generation = ++generations_;
  timers_->asyncAfter(lifetime, [weak = weak_from_this(), generation] {
    if (const auto self = weak.lock()) self->close(generation);
  });
  const std::lock_guard hold(mutex_);
  replaced = releaseSameKind(settings);
  spares_.push_back({settings, std::move(encoder), generation});
}

bool SpareEncoders::closeAll() {
  std::vector<Spare> closing;  // closed unlocked
  const std::lock_guard hold(mutex_);
  closing.swap(spares_);
  return !closing.empty();
}

std::unique_ptr<LibavEncoder> SpareEncoders::release(std::vector<Spare>::iterator spare) {
  if (spare == spares_.end()) return nullptr;
  auto encoder = std::move(spare->encoder);
  spares_.erase(spare);
  return encoder;
}

std::unique_ptr<LibavEncoder> SpareEncoders::releaseSameKind(const EncoderSettings& settings) {
  return release(std::ranges::find_if(
      spares_, [&](const Spare& spare) { return spare.settings.kind == settings.kind; }));
}

void SpareEncoders::close(std::uint64_t generation) {
  std::unique_ptr<LibavEncoder> spare;
  {
    const std::lock_guard hold(mutex_);
    spare = release(std::ranges::find(spares_, generation, &Spare::generation));
  }
  if (!spare) return;
  spare.reset();
  closed_();
}

}  // namespace lumora
