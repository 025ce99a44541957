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
  if (!isTimely(capturedAt, clock_->uptime()) || waiting_ + samples > longestWait * format_.rate) {
    ++dropped_;
    return;
  }
  waiting_ += samples;
  queue_->async([self = shared_from_this(),
                 record = SoundRecord{capturedAt, samples, std::move(pcm)}]() mutable {
    self->waiting_ -= record.samples;
    self->deliver(self->device_.add(std::move(record)));
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
    std::vector<SoundRecord> recent(std::make_move_iterator(self->recent_.begin()),
                                    std::make_move_iterator(self->recent_.end()));
    self->recent_.clear();
    self->deliver(std::move(recent));
  });
}

void SoundInput::deliver(std::vector<SoundRecord> records) {
  if (receiver_) return receiver_(std::move(records), hasEnded_);
  constexpr double mostKept = 1;  // seconds
  std::ranges::move(records, std::back_inserter(recent_));
  while (!recent_.empty() && recent_.back().capturedAt - recent_.front().capturedAt > mostKept)
    recent_.pop_front();
}

}  // namespace lumora
