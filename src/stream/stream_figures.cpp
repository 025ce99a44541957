#include "stream/stream_figures.h"

#include <algorithm>

namespace lumora {
namespace {

constexpr double smoothing = 0.125;

// Milliseconds between two uptimes; a clock that went wrong counts as no time.
double milliseconds(double from, double to) {
  const double elapsed = (to - from) * 1000.0;
  return elapsed > 0 ? elapsed : 0;
}

double smoothed(double average, double sample) {
  return smoothing * sample + (1 - smoothing) * average;
}

}  // namespace

void DeliveryCounters::count(DeliveryChoice choice) {
  if (choice == DeliveryChoice::dropForCredit) ++creditDrops;
  if (choice == DeliveryChoice::dropForSend) ++sendDrops;
  if (choice == DeliveryChoice::waitForKeyFrame) ++resyncWaitDrops;
}

void DeliveryCounters::observe(std::size_t unacknowledged) {
  maxUnacknowledgedObserved = std::max(maxUnacknowledgedObserved, unacknowledged);
}

void AcknowledgementFigures::record(const Acknowledgement& acknowledgement, double now) {
  const double roundTrip = milliseconds(acknowledgement.sentAt, now);
  const double oldest = milliseconds(acknowledgement.oldestSentAt, now);
  const bool first = acknowledgementSamples == 0;
  acknowledgementRTT = first ? roundTrip : smoothed(acknowledgementRTT, roundTrip);
  acknowledgementOldest = first ? oldest : smoothed(acknowledgementOldest, oldest);
  acknowledgementRTTMaximum = std::max(acknowledgementRTTMaximum, roundTrip);
  ++acknowledgementSamples;
}

}  // namespace lumora
