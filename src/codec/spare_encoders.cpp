#include "codec/spare_encoders.h"

#include <algorithm>
#include <utility>

#include "base/process_heap.h"

namespace lumora {

void SpareEncoders::order(const Order& wanted) {
  const std::lock_guard hold(mutex_);
  if (wanted.soon)
    orders_.push_front(wanted);
  else
    orders_.push_back(wanted);
}

std::optional<SpareEncoders::Order> SpareEncoders::beginOpening() {
  std::unique_ptr<LibavEncoder> replaced;  // closed unlocked
  const std::lock_guard hold(mutex_);
  while (!orders_.empty()) {
    const Order next = orders_.front();
    orders_.pop_front();
    if (std::ranges::find(spares_, next.settings, &Spare::settings) != spares_.end()) continue;
    opening_ = next.settings;
    replaced = releaseSameKind(next.settings);
    return next;
  }
  return std::nullopt;
}

void SpareEncoders::endOpening(const EncoderSettings& settings,
                               std::unique_ptr<LibavEncoder> encoder) {
  if (encoder) keep(settings, std::move(encoder));
  const std::lock_guard hold(mutex_);
  opening_.reset();
  opened_.notify_all();
}

std::unique_ptr<LibavEncoder> SpareEncoders::take(const EncoderSettings& settings,
                                                  OpeningClock::time_point deadline) {
  std::unique_lock hold(mutex_);
  // What nobody has begun to open its user opens itself.
  std::erase_if(orders_, [&](const Order& order) { return order.settings == settings; });
  opened_.wait_until(hold, deadline, [&] { return opening_ != settings; });
  return release(std::ranges::find(spares_, settings, &Spare::settings));
}

void SpareEncoders::keep(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder) {
  std::unique_ptr<LibavEncoder> replaced;  // closed unlocked
  std::uint64_t number = 0;
  {
    const std::lock_guard hold(mutex_);
    replaced = releaseSameKind(settings);
    number = ++kept_;
    spares_.push_back({settings, std::move(encoder), number});
  }
  timers_->asyncAfter(lifetime, [weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->drop(number);
  });
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

void SpareEncoders::drop(std::uint64_t number) {
  std::unique_ptr<LibavEncoder> dropped;
  {
    const std::lock_guard hold(mutex_);
    dropped = release(std::ranges::find(spares_, number, &Spare::number));
  }
  if (!dropped) return;
  dropped.reset();
  giveFreedMemoryBack();
}

}  // namespace lumora
