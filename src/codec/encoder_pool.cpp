#include "codec/encoder_pool.h"

#include <utility>

#include "base/out_of_memory.h"

namespace lumora {
namespace {

OpeningClock::time_point inASecond() { return OpeningClock::now() + longestOpening; }

}  // namespace

void EncoderSource::openAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                              int pictures) {
  bestEffort([this] { trimLater(); });
  const auto task =
      std::make_shared<std::packaged_task<OpenResult()>>([open = open_, spec, settings, pictures] {
        return openBy(inASecond(), open, spec, settings, pictures);
      });
  const auto claim = std::make_shared<Claim>();
  const auto replaced = std::make_shared<std::optional<Ahead>>();
  {
    const std::lock_guard hold(mutex_);
    auto& ahead = slot(spec, settings);
    if (ahead && ahead->codec == spec.codec && ahead->settings == settings) return;
    *replaced = std::exchange(ahead, Ahead{spec.codec, settings, task->get_future(), claim});
  }
  opener_->async([task, claim, replaced] {
    replaced->reset();  // closed first: the new one gets its memory
    if (!claim->test_and_set()) (*task)();
  });
}

void EncoderSource::replaceAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                                 OpenResult opened) {
  bestEffort([this] { trimLater(); });
  std::optional<Ahead> other = makeAhead(spec, settings, std::move(opened));
  const std::lock_guard hold(mutex_);
  slot(spec, settings).swap(other);  // what it replaces is closed unlocked
}

OpenResult EncoderSource::acquire(const EncoderRequest& request, const std::stop_token& stopped) {
  const auto& [spec, substitute, settings] = request;
  if (settings.kind == SessionKind::recording) {
    const std::lock_guard hold(mutex_);
    ++recordings_;
  }
  if (stopped.stop_requested()) return {AVERROR_EXIT};
  const bool othersRelease = isReleasing();
  OpenResult opened = takeAhead(spec, settings);
  if (opened.encoder) return opened;
  opened = open(spec, settings);
  // A driver that hangs would hang in closing, too.
  const bool isRefused = opened.status != 0 && opened.status != AVERROR(ETIMEDOUT);
  if (isRefused && isHardware(*spec.codec)) {
    const bool isReleased = othersRelease && waitForReleases(stopped);
    if (stopped.stop_requested()) return {AVERROR_EXIT};
    if (closeAhead(*spec.codec) || isReleased) opened = open(spec, settings);
  }
  if (opened.status == 0 || substitute == nullptr) return opened;
  EncoderSpec instead = spec;
  instead.codec = substitute;
  opened = open(instead, settings);
  opened.isSubstitute = true;
  return opened;
}

void EncoderSource::beginRelease(const EncoderRequest& request) {
  if (!isHardware(*request.spec.codec)) return;
  const std::lock_guard hold(mutex_);
  ++releasing_;
}

void EncoderSource::release(const EncoderRequest& request, OpenResult opened) {
  if (opened.encoder && !opened.isSubstitute) {
    bestEffort([&] { keepAhead(request, std::move(opened)); });
  }
  opened.encoder.reset();
  {
    const std::lock_guard hold(mutex_);
    if (request.settings.kind == SessionKind::recording) --recordings_;
    if (isHardware(*request.spec.codec)) --releasing_;
  }
  released_.notify_all();
  bestEffort([this] { trimLater(); });
}

std::optional<EncoderSource::Ahead>& EncoderSource::slot(const EncoderSpec& spec,
                                                         const EncoderSettings& settings) {
  const auto kind = static_cast<std::size_t>(settings.kind);
  return ahead_[2 * kind + (isHardware(*spec.codec) ? 1 : 0)];
}

EncoderSource::Ahead EncoderSource::makeAhead(const EncoderSpec& spec,
                                              const EncoderSettings& settings, OpenResult opened) {
  std::promise<OpenResult> promise;
  promise.set_value(std::move(opened));
  const auto claim = std::make_shared<Claim>();
  claim->test_and_set();
  return {spec.codec, settings, promise.get_future(), claim};
}

// What its opening came to, for the one that has taken it out of its slot. No encoder when that has
// not begun: its user opens one itself, and the opener leaves it out.
OpenResult EncoderSource::resultOf(Ahead& ahead) {
  try {
    const bool isBegun = ahead.claim->test_and_set();
    if (isBegun && ahead.opened.wait_until(inASecond()) == std::future_status::ready) {
      return ahead.opened.get();
    }
  } catch (const std::future_error&) {  // the task went with a queue that had no memory for it
  }
  return {};
}

// One that was opened ahead for the next session has precedence.
void EncoderSource::keepAhead(const EncoderRequest& request, OpenResult opened) {
  std::optional<Ahead> kept = makeAhead(request.spec, request.settings, std::move(opened));
  const std::lock_guard hold(mutex_);
  if (auto& ahead = slot(request.spec, request.settings); !ahead) ahead.swap(kept);
}

// No encoder when none of these settings was opened ahead, or it failed.
OpenResult EncoderSource::takeAhead(const EncoderSpec& spec, const EncoderSettings& settings) {
  std::optional<Ahead> taken;
  {
    const std::lock_guard hold(mutex_);
    auto& ahead = slot(spec, settings);
    if (!ahead || ahead->codec != spec.codec || ahead->settings != settings) return {};
    taken.swap(ahead);
  }
  return resultOf(*taken);
}

OpenResult EncoderSource::open(const EncoderSpec& spec, const EncoderSettings& settings) {
  return openBy(inASecond(), open_, spec, settings, 0);
}

bool EncoderSource::isReleasing() {
  const std::lock_guard hold(mutex_);
  return releasing_ > 0;
}

bool EncoderSource::waitForReleases(const std::stop_token& stopped) {
  std::unique_lock hold(mutex_);
  return released_.wait_until(hold, stopped, inASecond(), [this] { return releasing_ == 0; });
}

// Whether any of `codec` was closed.
bool EncoderSource::closeAhead(const AVCodec& codec) {
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

// Replaces an earlier call. May throw for want of a timer.
void EncoderSource::trimLater() {
  std::uint64_t asked = 0;
  {
    const std::lock_guard hold(mutex_);
    asked = ++trimAsked_;
  }
  opener_->asyncAfter(idleBeforeTrim, [weak = weak_from_this(), asked] {
    if (const auto self = weak.lock()) self->trim(asked);
  });
}

void EncoderSource::trim(std::uint64_t asked) {
  {
    EachAhead unused;  // closed unlocked
    const std::lock_guard hold(mutex_);
    if (trimAsked_ != asked || recordings_ > 0) return;
    unused.swap(ahead_);
  }
  trim_();
}

}  // namespace lumora
