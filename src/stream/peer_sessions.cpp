// Stream clients: admission, their lines, authentication, acknowledgements, removal.

#include <algorithm>
#include <random>
#include <utility>

#include "app/video_encoder.h"
#include "base/limits.h"
#include "stream/peer_line.h"

namespace lumora {
namespace {

std::string randomUUID() {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::random_device random;
  std::string text = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
  for (char& character : text) {
    if (character == 'x') character = digits[random() % 16];
    if (character == 'y') character = digits[8 + random() % 4];
  }
  return text;
}

}  // namespace

std::size_t VideoEncoder::countClients() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(peers, [](const auto& entry) { return entry.second->authenticated; }));
}

std::size_t VideoEncoder::countWaitingPeers() const { return peers.size() - countClients(); }

void VideoEncoder::accept(std::shared_ptr<TcpConnection> connection) {
  if (!running || !admitsConnection(countClients(), countWaitingPeers())) {
    connection->cancel();
    ++droppedPeers;
    return;
  }
  const auto peer = std::make_shared<Peer>();
  peer->id = randomUUID();
  peer->connection = std::move(connection);
  peer->acceptedAt = uptime();
  peers[peer->id] = peer;
  // Failed and cancelled alike end the peer.
  peer->connection->setStateHandler(
      [weak = weak_from_this(), weakPeer = std::weak_ptr(peer)](ConnectionState) {
        const auto self = weak.lock();
        const auto gone = weakPeer.lock();
        if (self && gone) self->remove(gone);
      });
  peer->connection->start();
  receive(peer);
}

void VideoEncoder::receive(const std::shared_ptr<Peer>& peer) {
  peer->connection->receive(maximumLineBytes + 1,
                            [weak = weak_from_this(), weakPeer = std::weak_ptr(peer)](
                                ByteView bytes, bool complete, std::error_code error) {
                              const auto self = weak.lock();
                              const auto from = weakPeer.lock();
                              if (self && from) self->received(from, bytes, complete || error);
                            });
}

void VideoEncoder::received(const std::shared_ptr<Peer>& peer, ByteView bytes, bool ended) {
  if (!running || !peers.contains(peer->id)) return;
  if (!takeBytes(*peer, bytes) || ended) return remove(peer);
  receive(peer);
}

// False when the peer broke the protocol.
bool VideoEncoder::takeBytes(Peer& peer, ByteView bytes) {
  while (!bytes.empty()) {
    const auto feed = std::ranges::find(bytes, std::uint8_t{'\n'});
    const auto count = static_cast<std::size_t>(feed - bytes.begin());
    if (peer.input.size() + count > maximumLineBytes) return false;
    peer.input.insert(peer.input.end(), bytes.begin(), feed);
    if (feed == bytes.end()) return true;
    if (!handleLine(peer)) return false;
    peer.input.clear();
    bytes = bytes.subspan(count + 1);
  }
  return true;
}

bool VideoEncoder::handleLine(Peer& peer) {
  const PeerLine line = parsePeerLine(peer.input);
  if (const auto* hello = std::get_if<HelloLine>(&line)) {
    return !peer.authenticated && authenticate(peer, hello->token);
  }
  if (const auto* ack = std::get_if<AckLine>(&line)) {
    return peer.authenticated && takeAcknowledgement(peer, ack->frameID);
  }
  return false;
}

bool VideoEncoder::authenticate(Peer& peer, const std::string& offered) {
  if (!constantTimeEqual(offered, token)) return false;
  if (countClients() >= maximumAuthenticatedPeers) return false;
  peer.authenticated = true;
  forceIDR = true;
  emitStats(true);
  return true;
}

bool VideoEncoder::takeAcknowledgement(Peer& peer, std::uint64_t frameID) {
  const Acknowledgement result = acknowledge(peer, frameID);
  if (result.outcome == AckOutcome::accepted) acknowledgements.record(result, uptime());
  return result.outcome != AckOutcome::invalid;
}

void VideoEncoder::remove(const std::shared_ptr<Peer>& peer) {
  if (peers.erase(peer->id) == 0) return;
  // Without a handler the cancellation does not come back here.
  peer->connection->setStateHandler({});
  peer->connection->cancel();
  ++droppedPeers;
  if (peer->authenticated) emitStats(true);
}

}  // namespace lumora
