#include "sound/sound_placing.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace lumora {
namespace {

constexpr double largestDifference = 0.01;  // seconds
constexpr double removalTime = 10;          // seconds in which most of a difference goes away
constexpr double mostCompensation = 550e-6;
constexpr double compensationChange = 100e-6;  // at most, in a second

double limited(double value, double limit) { return std::clamp(value, -limit, limit); }

}  // namespace

SoundPlacement SoundPlacing::place(const SoundRecord& record, double length) {
  const double seconds = static_cast<double>(record.samples) / rate_;
  const double late = record.capturedAt - start_ - length;
  if (std::abs(late) > largestDifference) beginAligning(length);
  SoundPlacement placement;
  if (isAligning_) {
    align(late, record, placement);
  } else {
    const double wanted = limited(record.drift + late / removalTime, mostCompensation);
    compensation_ += limited(wanted - compensation_, compensationChange * seconds);
  }
  placement.compensation = static_cast<int>(std::lround(compensation_ * 1e6));
  settledUntil_ = std::max(settledUntil_, record.capturedAt + seconds);
  return placement;
}

std::int64_t SoundPlacing::fillBefore(const SoundRecord& record, double most, double length) {
  return fill(std::min(record.capturedAt - largestDifference, start_ + length + most), length);
}

std::int64_t SoundPlacing::fill(double until, double length) {
  const std::int64_t silence = std::llround((until - start_ - length) * rate_);
  if (silence <= 0) return 0;
  beginAligning(length);
  insert(silence);
  settledUntil_ = std::max(settledUntil_, until);
  return silence;
}

void SoundPlacing::beginAligning(double length) {
  const double now = start_ + length;
  if (!std::exchange(isAligning_, true)) silences_.push_back({now, now});
}

void SoundPlacing::insert(std::int64_t silence) {
  silences_.back().until += static_cast<double>(silence) / rate_;
}

void SoundPlacing::align(double late, const SoundRecord& record, SoundPlacement& placement) {
  const std::int64_t samples = std::llround(late * rate_);
  placement.silence = std::max(samples, std::int64_t{0});
  placement.cut = std::clamp(-samples, std::int64_t{0}, record.samples);
  insert(placement.silence);
  isAligning_ = placement.cut == record.samples;
  // A jump is allowed here: this record does not continue the sound before it.
  compensation_ = limited(record.drift, mostCompensation);
}

std::int64_t SoundPlacing::gaps(double end) const {
  return std::count_if(silences_.begin() + 1, silences_.end(),
                       [end](const Silence& gap) { return gap.from < end; });
}

double SoundPlacing::missing(double end) const {
  double seconds = std::max(end - settledUntil_, 0.0);
  for (const auto& [from, until] : silences_) seconds += std::max(std::min(until, end) - from, 0.0);
  return seconds;
}

}  // namespace lumora
