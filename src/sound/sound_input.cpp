#include "sound/sound_input.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace lumora {

void SoundInput::setFailureHandler(FailureHandler handler) {
  queue_->async(
      [queue = queue_, handler = std::move(handler)] { queue->setFailureHandler(handler); });
}

bool SoundInput::mayAdd(std::uint64_t id, std::uint32_t bytes) const {
  return isValidSound(id, lastID_, bytes, format_);
}

void SoundInput::add(std::uint64_t id, Bytes pcm) {
  constexpr std::int64_t longestWait = 2;  // seconds of sound
  lastID_ = id;
  const double capturedAt = static_cast<double>(id) * 1e-6;
  const auto samples = std::ssize(pcm) / format_.sampleBytes();
  const double now = clock_->uptime();
  if (!isTimely(capturedAt, now) || waiting_ + samples > longestWait * format_.rate) {
    ++dropped_;
    return;
  }
  waiting_ += samples;
  queue_->async([self = shared_from_this(),
                 record = SoundRecord{capturedAt, samples, std::move(pcm), now}]() mutable {
    self->waiting_ -= record.samples;
    self->hear(std::move(record));
  });
}

// If `DeviceClock` doubts the time of a record, it holds the record back until later ones make the
// time certain. If none come, the record is delivered after `longestSilence`. That is less than the
// half second for which a stopped take waits for sound.
void SoundInput::hear(SoundRecord record) {
  constexpr double longestSilence = 0.4;  // seconds
  ++heard_;
  auto certain = device_.add(std::move(record));
  if (!certain.empty()) return deliver(std::move(certain));
  queue_->asyncAfter(longestSilence, [self = shared_from_this(), heard = heard_] {
    if (self->heard_ == heard) self->deliver(self->device_.flush());
  });
}

void SoundInput::end() {
  queue_->async([self = shared_from_this()] {
    self->hasEnded_ = true;
    self->deliver(self->device_.flush());
  });
}

void SoundInput::sendTo(SoundReceiver receiver) {
  queue_->async([self = shared_from_this(), receiver = std::move(receiver)] {
    self->receiver_ = receiver;
    if (receiver) receiver({self->recent_.begin(), self->recent_.end()}, self->hasEnded_);
  });
}

void SoundInput::settle() {
  queue_->async([self = shared_from_this()] { self->deliver(self->device_.settle()); });
}

void SoundInput::deliver(std::vector<SoundRecord> records) {
  constexpr double mostKept = 2;  // seconds
  std::ranges::copy(records, std::back_inserter(recent_));
  keepLatest(recent_, mostKept, format_.rate);
  if (receiver_) receiver_(std::move(records), hasEnded_);
}

}  // namespace lumora
