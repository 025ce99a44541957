#include "stream/preview.h"

#include <algorithm>

#include "base/limits.h"

namespace lumora {
namespace {

constexpr double smoothing = 0.125;  // weight of the latest value in an average

double milliseconds(double from, double to) { return std::max((to - from) * 1000.0, 0.0); }

}  // namespace

void AcknowledgementFigures::record(double sentAt, double oldestSentAt, double now) {
  const double roundTrip = milliseconds(sentAt, now);
  const double oldest = milliseconds(oldestSentAt, now);
  const double weight = acknowledgementSamples == 0 ? 1 : smoothing;
  acknowledgementRTT = weight * roundTrip + (1 - weight) * acknowledgementRTT;
  acknowledgementOldest = weight * oldest + (1 - weight) * acknowledgementOldest;
  acknowledgementRTTMaximum = std::max(acknowledgementRTTMaximum, roundTrip);
  ++acknowledgementSamples;
}

std::size_t Preview::countAuthenticatedPeers() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(peers, [](const auto& entry) { return entry.second->authenticated; }));
}

std::size_t Preview::countWaitingPeers() const { return peers.size() - countAuthenticatedPeers(); }

std::shared_ptr<Peer> Preview::find(std::uint64_t peerID) const {
  const auto found = peers.find(peerID);
  return found == peers.end() ? nullptr : found->second;
}

std::uint64_t* Preview::dropCounter(const Peer& peer, bool keyframe) {
  if (peer.unacknowledged.size() >= maximumUnacknowledgedFrames) return &creditDrops;
  if (peer.sending) return &sendDrops;
  if (peer.awaitingIDR && !keyframe) return &resyncWaitDrops;
  return nullptr;
}

void Preview::resynchronise(Peer& peer) {
  if (!peer.awaitingIDR) ++idrResyncs;
  peer.awaitingIDR = true;
  forceIDR = true;
}

bool Preview::acknowledge(Peer& peer, std::uint64_t frameID, double now) {
  if (frameID == 0 || frameID > peer.lastSent) return false;
  if (frameID <= peer.lastAcknowledged) return true;
  auto& waiting = peer.unacknowledged;
  const auto found = std::ranges::find(waiting, frameID, &SentFrame::id);
  if (found == waiting.end()) return false;
  acknowledgements.record(found->sentAt, waiting.front().sentAt, now);
  peer.lastAcknowledged = frameID;
  waiting.erase(waiting.begin(), found + 1);
  return true;
}

void Preview::close() {
  for (const auto& [id, peer] : peers) peer->connection->cancel();
  peers.clear();
  if (!session) return;
  session->completeFrames();
  session->invalidate();
  session.reset();
}

bool isOverdue(const Peer& peer, double now) {
  if (!peer.authenticated && now - peer.acceptedAt > helloTimeout) return true;
  if (peer.sending && now - peer.sendStarted > acknowledgementTimeout) return true;
  return !peer.unacknowledged.empty() &&
         now - peer.unacknowledged.front().sentAt > acknowledgementTimeout;
}

}  // namespace lumora
