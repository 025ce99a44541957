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

void VideoEncoder::accept(std::shared_ptr<TcpConnection> connection) {
  if (!running || !admitsConnection(preview.countClients(), preview.countWaitingPeers())) {
    connection->cancel();
    ++preview.droppedPeers;
    return;
  }
  const auto peer = std::make_shared<Peer>();
  peer->id = randomUUID();
  peer->connection = std::move(connection);
  peer->acceptedAt = uptime();
  preview.peers[peer->id] = peer;
  peer->connection->setEndHandler(weakly([weakPeer = std::weak_ptr(peer)](VideoEncoder& self) {
    if (const auto gone = weakPeer.lock()) self.remove(gone);
  }));
  peer->connection->start();
  receive(peer);
}

void VideoEncoder::receive(const std::shared_ptr<Peer>& peer) {
  peer->connection->receive(maximumLineBytes + 1, weakly([weakPeer = std::weak_ptr(peer)](
                                                             VideoEncoder& self, ByteView bytes,
                                                             bool complete, std::error_code error) {
                              if (const auto from = weakPeer.lock())
                                self.received(from, bytes, complete || error);
                            }));
}

void VideoEncoder::received(const std::shared_ptr<Peer>& peer, ByteView bytes, bool ended) {
  if (!running || !preview.peers.contains(peer->id)) return;
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
    return peer.authenticated && preview.takeAcknowledgement(peer, ack->frameID, uptime());
  }
  return false;
}

bool VideoEncoder::authenticate(Peer& peer, const std::string& offered) {
  if (!constantTimeEqual(offered, token)) return false;
  if (preview.countClients() >= maximumAuthenticatedPeers) return false;
  peer.authenticated = true;
  preview.forceIDR = true;
  emitStats(true);
  return true;
}

void VideoEncoder::remove(const std::shared_ptr<Peer>& peer) {
  if (preview.peers.erase(peer->id) == 0) return;
  // Without a handler the cancellation does not come back here.
  peer->connection->setEndHandler({});
  peer->connection->cancel();
  ++preview.droppedPeers;
  if (peer->authenticated) emitStats(true);
}

}  // namespace lumora
