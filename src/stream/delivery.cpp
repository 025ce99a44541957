// Delivery of encoded preview frames. A frame that can't go to a peer at once is dropped for that
// peer, never queued; the peer then gets nothing until the next key frame.

#include <utility>
#include <vector>

#include "app/video_encoder.h"
#include "stream/packet.h"

namespace lumora {
namespace {

// A copy, so that a removal during a pass does not disturb it.
std::vector<std::shared_ptr<Peer>> snapshot(
    const std::map<std::string, std::shared_ptr<Peer>>& peers) {
  std::vector<std::shared_ptr<Peer>> result;
  result.reserve(peers.size());
  for (const auto& [id, peer] : peers) result.push_back(peer);
  return result;
}

}  // namespace

void VideoEncoder::deliver(const EncodedSample& sample, std::uint64_t id) {
  const FramePackets packets = prepareFrame(sample, id, width, height);
  ++encodedFrames;
  for (const auto& peer : snapshot(peers)) {
    const DeliveryChoice choice = chooseDelivery(*peer, packets.keyframe);
    delivery.count(choice);
    if (choice == DeliveryChoice::send)
      sendFrame(peer, packets, id);
    else if (choice != DeliveryChoice::skip)
      resynchronise(*peer);
  }
  emitStats(false);
}

// A peer from which a frame was withheld. The episode counts once.
void VideoEncoder::resynchronise(Peer& peer) {
  if (!peer.awaitingIDR) ++delivery.idrResyncs;
  peer.awaitingIDR = true;
  forceIDR = true;
}

void VideoEncoder::sendFrame(const std::shared_ptr<Peer>& peer, const FramePackets& packets,
                             std::uint64_t id) {
  const double now = uptime();
  peer->awaitingIDR = false;
  peer->sending = true;
  peer->sendStarted = now;
  peer->lastSent = id;
  peer->unacknowledged.push_back({id, now});
  delivery.observe(peer->unacknowledged.size());
  std::vector<SharedBytes> parts;
  if (packets.configuration) parts.push_back(packets.configuration);
  parts.push_back(packets.frame);
  peer->connection->send(std::move(parts), [weak = weak_from_this(),
                                            weakPeer = std::weak_ptr(peer)](std::error_code error) {
    const auto self = weak.lock();
    const auto to = weakPeer.lock();
    if (!self || !to || !self->peers.contains(to->id)) return;
    to->sending = false;
    if (error) self->remove(to);
  });
}

void VideoEncoder::sweepPeers() {
  if (!running) return;
  const double now = uptime();
  for (const auto& peer : snapshot(peers)) {
    if (!isOverdue(*peer, now)) continue;
    // What a client never read would stay in the kernel for as long as it does not read.
    if (peer->authenticated) peer->connection->reset();
    remove(peer);
  }
}

}  // namespace lumora
