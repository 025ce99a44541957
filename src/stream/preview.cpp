#include "stream/preview.h"

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

std::size_t Preview::countClients() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(peers, [](const auto& entry) { return entry.second->authenticated; }));
}

std::size_t Preview::countWaitingPeers() const { return peers.size() - countClients(); }

std::vector<std::shared_ptr<Peer>> Preview::snapshot() const {
  std::vector<std::shared_ptr<Peer>> all;
  all.reserve(peers.size());
  for (const auto& [id, peer] : peers) all.push_back(peer);
  return all;
}

void Preview::resynchronise(Peer& peer) {
  if (!peer.awaitingIDR) ++delivery.idrResyncs;
  peer.awaitingIDR = true;
  forceIDR = true;
}

bool Preview::takeAcknowledgement(Peer& peer, std::uint64_t frameID, double now) {
  const Acknowledgement result = acknowledge(peer, frameID);
  if (result.outcome == AckOutcome::accepted) acknowledgements.record(result, now);
  return result.outcome != AckOutcome::invalid;
}

void Preview::close() {
  for (const auto& [id, peer] : peers) peer->connection->cancel();
  peers.clear();
  if (!session) return;
  session->completeFrames();
  session->invalidate();
  session.reset();
}

}  // namespace lumora
