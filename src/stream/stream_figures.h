#pragma once

// What the service counts over all its clients, never reset. State queue only.

#include "stream/peer.h"

namespace lumora {

// Frames that were withheld from a client, by cause.
struct DeliveryCounters {
  std::uint64_t creditDrops = 0;
  std::uint64_t sendDrops = 0;
  std::uint64_t resyncWaitDrops = 0;
  std::uint64_t idrResyncs = 0;               // episodes of falling behind
  std::size_t maxUnacknowledgedObserved = 0;  // of one peer

  void count(DeliveryChoice choice);
  void observe(std::size_t unacknowledged);
};

// Round trips in milliseconds.
struct AcknowledgementFigures {
  std::uint64_t acknowledgementSamples = 0;
  double acknowledgementRTT = 0;     // smoothed
  double acknowledgementOldest = 0;  // smoothed
  double acknowledgementRTTMaximum = 0;

  void record(const Acknowledgement& acknowledgement, double now);
};

}  // namespace lumora
