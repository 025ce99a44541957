#include "codec/encoder_source.h"

#include <utility>

#include "base/out_of_memory.h"

namespace lumora {

void EncoderSource::openAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                              int pictures) {
  const auto task =
      std::make_shared<std::packaged_task<OpenResult()>>([open = open_, spec, settings, pictures] {
        return openBy(OpeningClock::now() + longestOpening, open, spec, settings, pictures);
      });
  const auto replaced = std::make_shared<std::optional<Ahead>>();
  {
    const std::lock_guard hold(mutex_);
    auto& ahead = slot(settings.kind);
    if (ahead && ahead->codec == spec.codec && ahead->settings == settings) return;
    *replaced = std::exchange(ahead, Ahead{spec.codec, settings, task->get_future()});
  }
  opener_->async([task, replaced] {
    replaced->reset();  // closed first: the new one gets its memory
    (*task)();
  });
}

void EncoderSource::keepAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                              OpenResult opened) {
  std::promise<OpenResult> promise;
  std::optional<Ahead> replaced;  // closed unlocked
  promise.set_value(std::move(opened));
  const std::lock_guard hold(mutex_);
  replaced = std::exchange(slot(settings.kind), Ahead{spec.codec, settings, promise.get_future()});
}

OpenResult EncoderSource::take(const EncoderRequest& request) {
  const auto& [spec, substitute, settings] = request;
  const auto deadline = OpeningClock::now() + longestOpening;
  if (isHardware(*spec.codec)) waitForReturns(deadline);
  OpenResult opened = takeAhead(spec, settings, deadline);
  if (opened.encoder) return opened;
  opened = openBy(deadline, open_, spec, settings, 0);
  // A driver that hangs would hang in closing, too.
  if (opened.status != 0 && opened.status != AVERROR(ETIMEDOUT) && closeAhead(deadline)) {
    opened = openBy(deadline, open_, spec, settings, 0);
  }
  if (opened.status == 0 || substitute == nullptr) return opened;
  EncoderSpec instead = spec;
  instead.codec = substitute;
  opened = openBy(deadline, open_, instead, settings, 0);
  opened.isSubstitute = true;
  return opened;
}

void EncoderSource::beginReturn() {
  const std::lock_guard hold(mutex_);
  ++returning_;
}

void EncoderSource::giveBack(const EncoderRequest& request, OpenResult opened) {
  bestEffort([&] {
    if (opened.encoder && !opened.isSubstitute) {
      keepAhead(request.spec, request.settings, std::move(opened));
    }
  });
  opened.encoder.reset();
  {
    const std::lock_guard hold(mutex_);
    --returning_;
  }
  returned_.notify_all();
  bestEffort([this] { trimLater(); });
}

void EncoderSource::trimLater() {
  std::uint64_t use = 0;
  {
    const std::lock_guard hold(mutex_);
    use = ++use_;
  }
  opener_->asyncAfter(idleBeforeTrim, [weak = weak_from_this(), use] {
    const auto self = weak.lock();
    if (!self) return;
    {
      const std::lock_guard hold(self->mutex_);
      if (self->use_ != use) return;
    }
    self->closeAhead(OpeningClock::now());
    self->trim_();
  });
}

// No encoder when none of these settings was opened ahead, or it failed.
OpenResult EncoderSource::takeAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                                    OpeningClock::time_point deadline) {
  std::optional<Ahead> taken;
  {
    const std::lock_guard hold(mutex_);
    if (settings.kind == SessionKind::recording) ++use_;
    auto& ahead = slot(settings.kind);
    if (!ahead || ahead->codec != spec.codec || ahead->settings != settings) return {};
    taken = std::exchange(ahead, std::nullopt);
  }
  if (taken->opened.wait_until(deadline) != std::future_status::ready) return {};
  try {
    return taken->opened.get();
  } catch (const std::future_error&) {  // it was never begun, for want of memory
    return {};
  }
}

// Whether any was closed.
bool EncoderSource::closeAhead(OpeningClock::time_point deadline) {
  std::array<std::optional<Ahead>, 2> closing;
  {
    const std::lock_guard hold(mutex_);
    closing.swap(ahead_);
  }
  bool any = false;
  for (const auto& ahead : closing) {
    // One that is still opening closes itself once it is open.
    any |= ahead && ahead->opened.wait_until(deadline) == std::future_status::ready;
  }
  return any;
}

void EncoderSource::waitForReturns(OpeningClock::time_point deadline) {
  std::unique_lock hold(mutex_);
  returned_.wait_until(hold, deadline, [this] { return returning_ == 0; });
}

}  // namespace lumora
