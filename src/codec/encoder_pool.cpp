#include "codec/encoder_pool.h"

#include <utility>

#include "base/out_of_memory.h"

namespace lumora {
namespace {

OpeningClock::time_point inASecond() { return OpeningClock::now() + longestOpening; }

}  // namespace

void EncoderPool::openAhead(const AVCodec& codec, const EncoderSettings& settings, int pictures) {
  trimLater();
  const auto task = std::make_shared<std::packaged_task<OpenedEncoder()>>(
      [open = open_, &codec, settings, pictures] {
        return openBy(inASecond(), open, codec, settings, pictures);
      });
  const auto claim = std::make_shared<Claim>();
  const auto replaced = std::make_shared<std::optional<Ahead>>();
  {
    const std::lock_guard hold(mutex_);
    auto& ahead = slot(codec, settings);
    if (ahead && ahead->codec == &codec && ahead->settings == settings) return;
    *replaced = std::exchange(ahead, Ahead{&codec, settings, task->get_future(), claim});
  }
  opener_->async([task, claim, replaced] {
    replaced->reset();  // closed first, so the new one gets its memory
    if (!claim->test_and_set()) (*task)();
  });
}

void EncoderPool::keep(const AVCodec& codec, const EncoderSettings& settings,
                       OpenedEncoder opened) {
  std::promise<OpenedEncoder> promise;
  promise.set_value(std::move(opened));
  const auto claim = std::make_shared<Claim>();
  claim->test_and_set();
  std::optional<Ahead> kept = Ahead{&codec, settings, promise.get_future(), claim};
  const std::lock_guard hold(mutex_);
  if (auto& ahead = slot(codec, settings); !ahead) ahead.swap(kept);
}

OpenedEncoder EncoderPool::acquire(const EncoderRequest& request, const std::stop_token& stopped) {
  const auto& [codec, substitute, settings] = request;
  if (settings.kind == SessionKind::recording) {
    const std::lock_guard hold(mutex_);
    ++recordings_;
  }
  if (stopped.stop_requested()) return {AVERROR_EXIT};
  const bool othersRelease = isReleasing();
  OpenedEncoder opened = takeAhead(*codec, settings);
  if (opened.encoder) return opened;
  opened = open(*codec, settings);
  // A driver that hangs would also hang in closing.
  const bool isRefused = opened.status != 0 && opened.status != AVERROR(ETIMEDOUT);
  if (isRefused && isHardware(*codec)) {
    const bool isReleased = othersRelease && waitForReleases(stopped);
    if (stopped.stop_requested()) return {AVERROR_EXIT};
    if (closeAhead(*codec) || isReleased) opened = open(*codec, settings);
  }
  if (opened.status == 0 || substitute == nullptr) return opened;
  opened = open(*substitute, settings);
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
    keep(*request.codec, request.settings, std::move(opened));
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

std::optional<EncoderPool::Ahead>& EncoderPool::slot(const AVCodec& codec,
                                                     const EncoderSettings& settings) {
  const auto kind = static_cast<std::size_t>(settings.kind);
  return ahead_[2 * kind + (isHardware(codec) ? 1 : 0)];
}

// For the one that took it out of its slot. No encoder if its opening has not begun: then the
// caller opens one itself, and the opener skips it.
OpenedEncoder EncoderPool::resultOf(Ahead& ahead) {
  const bool isBegun = ahead.claim->test_and_set();
  if (!isBegun || ahead.opened.wait_until(inASecond()) != std::future_status::ready) return {};
  return ahead.opened.get();
}

// No encoder if none of these settings was opened ahead, or its opening failed.
OpenedEncoder EncoderPool::takeAhead(const AVCodec& codec, const EncoderSettings& settings) {
  std::optional<Ahead> taken;
  {
    const std::lock_guard hold(mutex_);
    auto& ahead = slot(codec, settings);
    if (!ahead || ahead->codec != &codec || ahead->settings != settings) return {};
    taken.swap(ahead);
  }
  return resultOf(*taken);
}

OpenedEncoder EncoderPool::open(const AVCodec& codec, const EncoderSettings& settings) {
  return openBy(inASecond(), open_, codec, settings, 0);
}

bool EncoderPool::isReleasing() {
  const std::lock_guard hold(mutex_);
  return releasing_ > 0;
}

bool EncoderPool::waitForReleases(const std::stop_token& stopped) {
  std::unique_lock hold(mutex_);
  return released_.wait_until(hold, stopped, inASecond(), [this] { return releasing_ == 0; });
}

// Whether any encoder of `codec` was closed.
bool EncoderPool::closeAhead(const AVCodec& codec) {
  EachAhead closing;
  {
    const std::lock_guard hold(mutex_);
    for (std::size_t i = 0; i < ahead_.size(); ++i) {
      if (ahead_[i] && ahead_[i]->codec == &codec) closing[i].swap(ahead_[i]);
    }
  }
  bool any = false;
  for (auto& ahead : closing) any |= ahead && resultOf(*ahead).encoder;
  return any;
}

// Replaces an earlier call.
void EncoderPool::trimLater() {
  std::uint64_t asked = 0;
  {
    const std::lock_guard hold(mutex_);
    asked = ++trimAsked_;
  }
  bestEffort([&] {
    opener_->asyncAfter(idleBeforeTrim, [weak = weak_from_this(), asked] {
      if (const auto self = weak.lock()) self->trim(asked);
    });
  });
}

void EncoderPool::trim(std::uint64_t asked) {
  {
    EachAhead unused;  // closed after the lock is released
    const std::lock_guard hold(mutex_);
    if (trimAsked_ != asked || recordings_ > 0) return;
    unused.swap(ahead_);
  }
  trim_();
}

}  // namespace lumora
