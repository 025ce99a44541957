#include "sound/device_clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace lumora {
namespace {

constexpr double firstDrift = 9e-8;         // variance: 300 ppm squared
constexpr double driftWander = 4e-13;       // variance the drift gains in a second: 0.6 ppm squared
constexpr double jitterMemory = 100;        // records
constexpr double usualJitter = 2.4;         // standard deviations; less is on the line
constexpr double usualSpread = 4;           // standard deviations; times that agree differ by less
constexpr double usualError = 3;            // standard deviations of the line's own error
constexpr double usualDelay = 0.6;          // share of a record's length; more means a lost record
constexpr double longestUsualDelay = 0.04;  // seconds
constexpr double leastScatter = 0.01;       // seconds; less is jitter
constexpr double scatterMemory = 10;        // seconds
constexpr double leastStep = 0.01;          // seconds off the line; less counts as close to it
constexpr double longestAside = 1;          // seconds on one side until the line starts again
constexpr double shortestDeviation = 0.05;  // seconds; what lasts longer may be a jump
constexpr double longestDoubt = 0.6;        // seconds until any deviation is a jump
constexpr double mostHeld = 2;              // seconds of sound

}  // namespace

std::vector<SoundRecord> DeviceClock::add(SoundRecord record) {
  const double statedTime = record.capturedAt;
  const double seconds = static_cast<double>(record.samples) / rate_;
  held_.push_back(std::move(record));  // first: if it throws, nothing else has changed
  if (held_.size() == 1) doubtedSince_ = statedTime;
  if (!isStarted_) startAt(statedTime);
  const double late = statedTime - next_;
  const bool isOnLine =
      std::abs(late) <= usualLateness(seconds) + usualError * std::sqrt(timeVariance_);
  if (isOnLine) deviation_ = {};
  isOnLine ? correct(late, seconds) : deviate(late);
  held_.back().capturedAt = next_;
  advance(seconds);
  constexpr std::ptrdiff_t fewestRecords = 4;  // fewer may agree by chance
  if (!isOnLine && !hasJumped(fewestRecords) && !isDoubtedTooLong(statedTime)) return {};
  if (!isOnLine) jump();
  return flush();
}

std::vector<SoundRecord> DeviceClock::settle() {
  return hasJumped(2) ? flush() : std::vector<SoundRecord>();
}

// Two records that agree are enough for a jump here, since no later ones can confirm it in time.
std::vector<SoundRecord> DeviceClock::flush() {
  if (deviation_.records > 1) jump();
  deviation_ = {};
  for (SoundRecord& certain : held_) certain.drift = drift_;
  return std::exchange(held_, {});
}

void DeviceClock::startAt(double time) {
  isStarted_ = true;
  next_ = time;
  late_ = 0;
  aside_ = 0;
  timeVariance_ = jitter_;
  driftVariance_ = firstDrift;
  covariance_ = 0;
}

double DeviceClock::usualLateness(double seconds) const {
  const double jitter = usualJitter * std::sqrt(jitter_);
  if (scatter_ < leastScatter) return jitter;
  return std::max(jitter, std::min(usualDelay * seconds, longestUsualDelay));
}

// `correct` and `advance` are the two steps of the filter. Jitter is measured from one time to the
// next, so that an error of the line does not count as jitter.
void DeviceClock::correct(double late, double seconds) {
  const double timeGain = timeVariance_ / (timeVariance_ + jitter_);
  const double driftGain = covariance_ / (timeVariance_ + jitter_);
  if (aside_ == 0) steadyDrift_ = drift_;
  const double stated = next_ + late;
  next_ += timeGain * late;
  drift_ += driftGain * late;
  driftVariance_ -= driftGain * covariance_;
  covariance_ *= 1 - timeGain;
  timeVariance_ *= 1 - timeGain;
  const double change = late - std::exchange(late_, late);
  jitter_ = std::max(jitter_ + (change * change / 2 - jitter_) / jitterMemory, leastJitter);
  scatter_ = std::max(std::abs(change), scatter_ * (1 - seconds / scatterMemory));
  jumped_ *= 1 - seconds / scatterMemory;
  followStep(stated, late, seconds);
}

void DeviceClock::followStep(double stated, double late, double seconds) {
  constexpr double leastRecords = 10;  // fewer may be so far off by chance
  const double back = -std::copysign(std::min(seconds, std::abs(aside_)), aside_);
  aside_ += std::abs(late) > leastStep ? std::copysign(seconds, late) : back;
  if (std::abs(aside_) <= std::max(longestAside, leastRecords * seconds)) return;
  drift_ = steadyDrift_;
  scatter_ = 0;  // the times do not scatter: they made a step
  startAt(stated);
}

void DeviceClock::advance(double seconds) {
  next_ += seconds * (1 + drift_);
  timeVariance_ += seconds * (2 * covariance_ + seconds * driftVariance_);
  covariance_ += seconds * driftVariance_;
  driftVariance_ += seconds * driftWander;
}

void DeviceClock::deviate(double late) {
  const double least = std::min(deviation_.least, late);
  const double most = std::max(deviation_.most, late);
  const bool agrees = deviation_.records > 0 && most - least <= usualSpread * std::sqrt(jitter_);
  deviation_ = agrees ? Deviation{deviation_.records + 1, least, most} : Deviation{1, late, late};
}

// After a hang of the parent many records come at once. Each is less late than the one before it,
// by the length of a record. That is no jump, even if the times jitter so much that these records
// agree. In such a burst, the lateness changes by as much as the records are long. So a jump counts
// only if its records are at least twice as long as the difference in their lateness.
bool DeviceClock::hasJumped(std::ptrdiff_t fewestRecords) const {
  if (deviation_.records < fewestRecords) return false;
  const double since = held_.end()[-deviation_.records].capturedAt;
  const double agreed = held_.back().capturedAt - since;
  return agreed >= std::max(shortestDeviation, 2 * (deviation_.most - deviation_.least));
}

// The length of the doubt is measured with the stated times, not with times on the line. After a
// hang, many records come at once: their times on the line may span `longestDoubt` although hardly
// any time has passed. The second condition is for stated times that stand still.
bool DeviceClock::isDoubtedTooLong(double statedTime) const {
  return statedTime - doubtedSince_ >= longestDoubt ||
         held_.back().capturedAt - held_.front().capturedAt >= mostHeld;
}

// After a jump the sound may come from another device, so the drift is uncertain again.
void DeviceClock::jump() {
  const double by = (deviation_.least + deviation_.most) / 2;
  for (auto record = held_.end() - deviation_.records; record != held_.end(); ++record) {
    record->capturedAt += by;
  }
  // Two jumps in opposite directions may be scatter.
  const double both = std::min({std::abs(by), std::abs(jumped_), longestUsualDelay});
  if (by * jumped_ < 0) scatter_ = std::max(scatter_, both);
  jumped_ = by;
  startAt(next_ + by);
  deviation_ = {};
}

}  // namespace lumora
