#include "sound/sound_input.h"

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
    self->device_.add(std::move(record));
  });
}

}  // namespace lumora
