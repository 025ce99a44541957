// Peers: admission, their lines, authentication, acknowledgements, removal. A peer sends these
// lines, each ended by a line feed:
//
//   {"type":"hello","token":"..."}     once, before anything else
//   {"type":"ack","frame_id":123}      after that
//
// Further keys are ignored. Anything else ends the connection.

#include <algorithm>
#include <cmath>
#include <string_view>

#include "app/video_encoder.h"

namespace lumora {
namespace {

// 9.0 counts as 9. A double above 2^53 may stand for several integers, so it is refused.
std::optional<std::uint64_t> parseFrameID(const Json& value) {
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  if (!value.is_number_float()) return std::nullopt;
  const double number = value.get<double>();
  constexpr double largestExactInteger = 9007199254740992.0;
  if (number < 0 || number > largestExactInteger || number != std::floor(number)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(number);
}

// Compares two secrets in a time that depends on their lengths only.
bool constantTimeEqual(std::string_view first, std::string_view second) {
  if (first.size() != second.size()) return false;
  int difference = 0;
  for (std::size_t i = 0; i < first.size(); ++i) difference |= first[i] ^ second[i];
  return difference == 0;
}

}  // namespace

void VideoEncoder::accept(std::shared_ptr<TcpConnection> connection) {
  const bool isFull = preview.countAuthenticatedPeers() >= maximumAuthenticatedPeers ||
                      preview.countWaitingPeers() >= maximumWaitingPeers;
  if (!running || isFull) {
    connection->cancel();
    ++preview.droppedPeers;
    return;
  }
  const auto peer = std::make_shared<Peer>();
  peer->id = ++preview.lastPeerID;
  peer->connection = std::move(connection);
  peer->acceptedAt = uptime();
  preview.peers[peer->id] = peer;
  peer->connection->setEndHandler(weakly(&VideoEncoder::remove, peer->id));
  peer->connection->start();
  receive(*peer);
}

void VideoEncoder::receive(const Peer& peer) {
  peer.connection->receive(maximumLineBytes + 1, weakly(&VideoEncoder::received, peer.id));
}

void VideoEncoder::received(std::uint64_t peerID, ByteView bytes, bool complete,
                            std::error_code error) {
  const auto peer = preview.find(peerID);
  if (!running || !peer) return;
  if (!takeBytes(*peer, bytes) || complete || error) return remove(peerID);
  receive(*peer);
}

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
  const auto message = parseJson(peer.input);
  if (!message) return false;
  const std::string* type = findString(*message, "type");
  if (type == nullptr) return false;
  if (*type == "hello") {
    const std::string* offered = findString(*message, "token");
    return offered != nullptr && !peer.authenticated && authenticate(peer, *offered);
  }
  const Json* value = findValue(*message, "frame_id");
  if (*type != "ack" || value == nullptr || !peer.authenticated) return false;
  const auto frameID = parseFrameID(*value);
  return frameID && preview.acknowledge(peer, *frameID, uptime());
}

bool VideoEncoder::authenticate(Peer& peer, const std::string& offered) {
  if (!constantTimeEqual(offered, configuration.token)) return false;
  if (preview.countAuthenticatedPeers() >= maximumAuthenticatedPeers) return false;
  peer.authenticated = true;
  preview.forceIDR = true;
  raw.setNeeded(true);
  emitStats(true);
  return true;
}

void VideoEncoder::remove(std::uint64_t peerID) {
  const auto peer = preview.find(peerID);
  if (!peer) return;
  preview.peers.erase(peerID);
  peer->connection->setEndHandler({});  // `cancel` would call it
  peer->connection->cancel();
  ++preview.droppedPeers;
  if (peer->authenticated) emitStats(true);
}

}  // namespace lumora
