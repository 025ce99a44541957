// Delivery of encoded preview frames. A frame that can't go to a peer at once is dropped for that
// peer, never queued; the peer then gets nothing until the next key frame.

#include <utility>
#include <vector>

#include "app/video_encoder.h"
#include "stream/packet.h"

namespace lumora {
void VideoEncoder::deliver(const EncodedSample& sample, std::uint64_t id) {
  const FramePackets packets = prepareFrame(sample, id, preview.width, preview.height);
  ++preview.encodedFrames;
  for (const auto& peer : preview.snapshot()) {
    const DeliveryChoice choice = chooseDelivery(*peer, packets.keyframe);
    preview.delivery.count(choice);
    if (choice == DeliveryChoice::send)
      sendFrame(peer, packets, id);
    else if (choice != DeliveryChoice::skip)
      preview.resynchronise(*peer);
  }
  emitStats(false);
}

void VideoEncoder::sendFrame(const std::shared_ptr<Peer>& peer, const FramePackets& packets,
                             std::uint64_t id) {
  const double now = uptime();
  peer->awaitingIDR = false;
  peer->sending = true;
  peer->sendStarted = now;
  peer->lastSent = id;
  peer->unacknowledged.push_back({id, now});
  preview.delivery.observe(peer->unacknowledged.size());
  std::vector<SharedBytes> parts;
  if (packets.configuration) parts.push_back(packets.configuration);
  parts.push_back(packets.frame);
  const auto sent = [weakPeer = std::weak_ptr(peer)](VideoEncoder& self, std::error_code error) {
    const auto to = weakPeer.lock();
    if (!to || !self.preview.peers.contains(to->id)) return;
    to->sending = false;
    if (error) self.remove(to);
  };
  peer->connection->send(std::move(parts), weakly(sent));
}

void VideoEncoder::sweepPeers() {
  if (!running) return;
  const double now = uptime();
  for (const auto& peer : preview.snapshot()) {
    if (!isOverdue(*peer, now)) continue;
    // A reset also discards what the kernel holds for a client that does not read.
    if (peer->authenticated) peer->connection->reset();
    remove(peer);
  }
}

}  // namespace lumora
