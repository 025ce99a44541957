#include "stream/peer.h"

#include <algorithm>

#include "base/limits.h"

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

Acknowledgement acknowledge(Peer& peer, std::uint64_t frameID) {
  if (frameID == 0 || frameID > peer.lastSent) return {AckOutcome::invalid};
  if (frameID <= peer.lastAcknowledged) return {AckOutcome::repeated};
  const auto found = std::ranges::find(peer.unacknowledged, frameID, &SentFrame::id);
  if (found == peer.unacknowledged.end()) return {AckOutcome::invalid};
  const Acknowledgement result{AckOutcome::accepted, found->sentAt,
                               peer.unacknowledged.front().sentAt};
  peer.lastAcknowledged = frameID;
  std::erase_if(peer.unacknowledged, [=](const SentFrame& sent) { return sent.id <= frameID; });
  return result;
}

DeliveryChoice chooseDelivery(const Peer& peer, bool keyframe) {
  if (!peer.authenticated) return DeliveryChoice::skip;
  if (peer.unacknowledged.size() >= maximumUnacknowledgedFrames) {
    return DeliveryChoice::dropForCredit;
  }
  if (peer.sending) return DeliveryChoice::dropForSend;
  if (peer.awaitingIDR && !keyframe) return DeliveryChoice::waitForKeyFrame;
  return DeliveryChoice::send;
}

void DeliveryCounters::count(DeliveryChoice choice) {
  if (choice == DeliveryChoice::dropForCredit) ++creditDrops;
  if (choice == DeliveryChoice::dropForSend) ++sendDrops;
  if (choice == DeliveryChoice::waitForKeyFrame) ++resyncWaitDrops;
}

void DeliveryCounters::observe(std::size_t unacknowledged) {
  maxUnacknowledgedObserved = std::max(maxUnacknowledgedObserved, unacknowledged);
}

bool isOverdue(const Peer& peer, double now) {
  if (!peer.authenticated && now - peer.acceptedAt > helloTimeout) return true;
  if (peer.sending && now - peer.sendStarted > acknowledgementTimeout) return true;
  return !peer.unacknowledged.empty() &&
         now - peer.unacknowledged.front().sentAt > acknowledgementTimeout;
}

bool admitsConnection(std::size_t authenticated, std::size_t waiting) {
  return authenticated < maximumAuthenticatedPeers && waiting < maximumWaitingPeers;
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
