#include "codec/encoder_pool.h"

#include <utility>

#include "base/out_of_memory.h"

namespace lumora {

void EncoderPool::openAhead(const AVCodec& codec, const EncoderSettings& settings, int pictures) {
  trimLater();
  const auto ahead = std::make_shared<Ahead>(Ahead{&codec, settings, /*isBegun=*/false});
  std::shared_ptr<Ahead> replaced;
  {
    const std::lock_guard hold(mutex_);
    auto& next = slot(codec, settings);
    if (next && next->isFor(codec, settings)) return;
    replaced = std::exchange(next, ahead);
  }
  opener_->async([weak = weak_from_this(), ahead, replaced, pictures] {
    resultOf(replaced);  // closes the old encoder first: the new one can reuse the memory
    if (const auto self = weak.lock()) self->openIfWanted(ahead, pictures);
  });
}

// Opens the encoder if `ahead` is still in its slot.
void EncoderPool::openIfWanted(const std::shared_ptr<Ahead>& ahead, int pictures) {
  {
    const std::lock_guard hold(mutex_);
    if (slot(*ahead->codec, ahead->settings) != ahead) return;
    ahead->isBegun = true;
  }
  OpenedEncoder opened = openInTime(open_, *ahead->codec, ahead->settings, pictures);
  const bool isOpen = opened.encoder != nullptr;
  ahead->opened.set_value(std::move(opened));
  if (isOpen) return;
  const std::lock_guard hold(mutex_);  // empties the slot, so that the next `openAhead` tries again
  if (auto& next = slot(*ahead->codec, ahead->settings); next == ahead) next.reset();
}

void EncoderPool::keep(const AVCodec& codec, const EncoderSettings& settings,
                       OpenedEncoder opened) {
  const auto kept = std::make_shared<Ahead>(Ahead{&codec, settings, /*isBegun=*/true});
  kept->opened.set_value(std::move(opened));
  const std::lock_guard hold(mutex_);
  if (auto& next = slot(codec, settings); !next) next = kept;
}

OpenedEncoder EncoderPool::acquire(const EncoderRequest& request, const std::stop_token& stopped) {
  const auto& [codec, substitute, settings] = request;
  std::unique_lock hold(mutex_);
  if (settings.kind == SessionKind::recording) ++recordings_;
  if (stopped.stop_requested()) return {AVERROR_EXIT};
  const bool othersRelease = releasing_ > 0;
  std::shared_ptr<Ahead> ahead;
  if (auto& next = slot(*codec, settings); next && next->isFor(*codec, settings)) ahead.swap(next);
  hold.unlock();
  OpenedEncoder opened = resultOf(std::exchange(ahead, nullptr));
  if (opened.encoder) return opened;
  opened = openInTime(open_, *codec, settings, 0);
  // After a timeout no encoder is closed: a driver that hangs would also hang in closing one.
  const bool isRefused = opened.status != 0 && opened.status != AVERROR(ETIMEDOUT);
  if (isRefused && isHardware(*codec)) {
    hold.lock();
    const bool isReleased =
        (othersRelease || releasing_ > 0) &&
        released_.wait_for(hold, stopped, longestOpening, [this] { return releasing_ == 0; });
    hold.unlock();
    if (stopped.stop_requested()) return {AVERROR_EXIT};
    if (closeAhead(*codec) || isReleased) opened = openInTime(open_, *codec, settings, 0);
  }
  if (opened.status == 0 || substitute == nullptr) return opened;
  opened = openInTime(open_, *substitute, settings, 0);
  opened.isSubstitute = true;
  return opened;
}

void EncoderPool::beginRelease(const EncoderRequest& request) {
  if (!isHardware(*request.codec)) return;
  const std::lock_guard hold(mutex_);
  ++releasing_;
}

void EncoderPool::release(const EncoderRequest& request, OpenedEncoder opened) {
  if (opened.encoder && !opened.isSubstitute) {
    bestEffort([&] { keep(*request.codec, request.settings, std::move(opened)); });
  }
  opened.encoder.reset();
  {
    const std::lock_guard hold(mutex_);
    if (request.settings.kind == SessionKind::recording) --recordings_;
    if (isHardware(*request.codec)) --releasing_;
  }
  released_.notify_all();
  trimLater();
}

std::shared_ptr<EncoderPool::Ahead>& EncoderPool::slot(const AVCodec& codec,
                                                       const EncoderSettings& settings) {
  const auto kind = static_cast<std::size_t>(settings.kind);
  return ahead_[2 * kind + (isHardware(codec) ? 1 : 0)];
}

// Call this after `ahead` was taken out of its slot. Waits up to a second for the encoder. Returns
// none if the opening has not begun, has failed or takes longer.
OpenedEncoder EncoderPool::resultOf(const std::shared_ptr<Ahead>& ahead) {
  if (!ahead || !ahead->isBegun) return {};
  auto opened = ahead->opened.get_future();
  if (opened.wait_for(longestOpening) != std::future_status::ready) return {};
  return opened.get();
}

// Closes the encoders of `codec` that wait for a session. Returns whether there were any.
bool EncoderPool::closeAhead(const AVCodec& codec) {
  Slots closing;
  {
    const std::lock_guard hold(mutex_);
    for (std::size_t i = 0; i < ahead_.size(); ++i) {
      if (ahead_[i] && ahead_[i]->codec == &codec) closing[i].swap(ahead_[i]);
    }
  }
  bool any = false;
  for (const auto& ahead : closing) any |= resultOf(ahead).encoder != nullptr;
  return any;
}

// Trims after `idleBeforeTrim` seconds, unless `trimLater` is called again in that time.
void EncoderPool::trimLater() {
  const std::uint64_t asked = ++trimAsked_;
  bestEffort([&] {
    opener_->asyncAfter(idleBeforeTrim, [weak = weak_from_this(), asked] {
      if (const auto self = weak.lock(); self && self->trimAsked_ == asked) self->trim();
    });
  });
}

void EncoderPool::trim() {
  {
    Slots unused;  // closed after the lock is released
    const std::lock_guard hold(mutex_);
    if (recordings_ > 0) return;
    unused.swap(ahead_);
  }
  trim_();
}

}  // namespace lumora
