#include "sound/sound_placing.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace lumora {
namespace {

constexpr double removalTime = 10;  // seconds in which most of a difference goes away
constexpr double mostCompensation = 550e-6;
constexpr double compensationChange = 100e-6;  // at most, in a second

double limited(double value, double limit) { return std::clamp(value, -limit, limit); }

}  // namespace

SoundPlacement SoundPlacing::place(const SoundRecord& record, double length) {
  const double seconds = static_cast<double>(record.samples) / rate_;
  const double late = record.capturedAt - start_ - length;
  if (std::abs(late) > largestDifference) beginAligning();
  SoundPlacement placement;
  if (isAligning_) {
    align(late, record, placement);
  } else {
    const double wanted = limited(record.drift + late / removalTime, mostCompensation);
    compensation_ += limited(wanted - compensation_, compensationChange * seconds);
  }
  placement.gain = static_cast<int>(std::lround(compensation_ * 1e6));
  heardUntil_ = std::max(heardUntil_, record.capturedAt + seconds);
  return placement;
}

std::int64_t SoundPlacing::fill(double until, double length) {
  const std::int64_t silence = std::llround((until - start_ - length) * rate_);
  if (silence <= 0) return 0;
  if (!isAligning_) filledFrom_ = start_ + length;
  filledUntil_ = until;
  beginAligning();
  missing_ += static_cast<double>(silence) / rate_;
  heardUntil_ = std::max(heardUntil_, until);
  return silence;
}

void SoundPlacing::beginAligning() {
  if (!std::exchange(isAligning_, true)) ++gaps_;
}

void SoundPlacing::align(double late, const SoundRecord& record, SoundPlacement& placement) {
  const std::int64_t samples = std::llround(late * rate_);
  placement.silence = std::max(samples, std::int64_t{0});
  placement.cut = std::clamp(-samples, std::int64_t{0}, record.samples);
  missing_ += static_cast<double>(placement.silence) / rate_;
  isAligning_ = placement.cut == record.samples;
  compensation_ = limited(record.drift, mostCompensation);  // the sound before it has ended
}

std::int64_t SoundPlacing::trackSamples(double end, int trackRate) const {
  return std::llround((end - start_) * trackRate);
}

double SoundPlacing::missing(double end) const {
  const double behind = std::max(filledUntil_ - std::max(end, filledFrom_), 0.0);
  return std::min(missing_ - behind + std::max(end - heardUntil_, 0.0), end - start_);
}

}  // namespace lumora
