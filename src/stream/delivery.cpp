// Delivery of encoded preview frames. A frame that can't be sent to a peer at once is dropped for
// that peer, never queued. The peer then gets nothing until the next key frame.

#include <algorithm>

#include "app/video_encoder.h"
#include "stream/packet.h"

namespace lumora {

void VideoEncoder::deliver(const EncodedSample& sample, std::uint64_t id) {
  const FramePackets packets = prepareFrame(sample, id, preview.width, preview.height);
  ++preview.encodedFrames;
  for (const auto& [peerID, peer] : preview.peers) {
    if (!peer->authenticated) continue;
    if (std::uint64_t* drops = preview.dropCounter(*peer, packets.keyframe)) {
      ++*drops;
      preview.resynchronise(*peer);
    } else {
      sendFrame(*peer, packets, id);
    }
  }
  emitStats(false);
}

void VideoEncoder::sendFrame(Peer& peer, const FramePackets& packets, std::uint64_t id) {
  const double now = uptime();
  peer.awaitingIDR = false;
  peer.sending = true;
  peer.sendStarted = now;
  peer.lastSent = id;
  peer.unacknowledged.push_back({id, now});
  preview.maxUnacknowledgedObserved =
      std::max(preview.maxUnacknowledgedObserved, peer.unacknowledged.size());
  std::vector<SharedBytes> parts;
  if (packets.configuration) parts.push_back(packets.configuration);
  parts.push_back(packets.frame);
  peer.connection->send(std::move(parts), weakly(&VideoEncoder::sent, peer.id));
}

void VideoEncoder::sent(std::uint64_t peerID, std::error_code error) {
  const auto peer = preview.find(peerID);
  if (!peer) return;
  peer->sending = false;
  if (error) remove(peerID);
}

void VideoEncoder::sweepPeers() {
  if (!running) return;
  const double now = uptime();
  std::vector<std::shared_ptr<Peer>> overdue;  // collected first, since `remove` changes the map
  for (const auto& [id, peer] : preview.peers) {
    if (isOverdue(*peer, now)) overdue.push_back(peer);
  }
  for (const auto& peer : overdue) {
    // Without a reset, the kernel would keep unsent bytes for a peer that does not read.
    if (peer->authenticated) peer->connection->reset();
    remove(peer->id);
  }
}

}  // namespace lumora
