#include "stream/peer.h"

#include <algorithm>

#include "base/limits.h"

namespace lumora {

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

bool isOverdue(const Peer& peer, double now) {
  if (!peer.authenticated && now - peer.acceptedAt > helloTimeout) return true;
  if (peer.sending && now - peer.sendStarted > acknowledgementTimeout) return true;
  return !peer.unacknowledged.empty() &&
         now - peer.unacknowledged.front().sentAt > acknowledgementTimeout;
}

bool admitsConnection(std::size_t authenticated, std::size_t waiting) {
  return authenticated < maximumAuthenticatedPeers && waiting < maximumWaitingPeers;
}

}  // namespace lumora
