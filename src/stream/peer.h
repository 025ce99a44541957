#pragma once

// One TCP stream client and the pure decisions about it: what an acknowledgement does, whether
// the next frame may go out, whether the peer has been silent for too long. State queue only.

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "platform/network.h"

namespace lumora {

struct SentFrame {
  std::uint64_t id = 0;
  double sentAt = 0;  // uptime seconds
};

struct Peer {
  std::string id;  // random UUID, the key in `VideoEncoder::peers`
  std::shared_ptr<TcpConnection> connection;
  double acceptedAt = 0;  // uptime seconds
  bool authenticated = false;
  Bytes input;                           // the current line as far as it has come
  bool sending = false;                  // a send is outstanding, begun at `sendStarted`
  double sendStarted = 0;                // uptime seconds
  bool awaitingIDR = true;               // the next frame sent must be a key frame
  std::deque<SentFrame> unacknowledged;  // in send order
  std::uint64_t lastAcknowledged = 0;
  std::uint64_t lastSent = 0;
};

// What an "ack" line means for its peer. Only an accepted one changes the peer: it drops every
// frame up to `frameID` from `unacknowledged`.
enum class AckOutcome { accepted, repeated, invalid };
struct Acknowledgement {
  AckOutcome outcome = AckOutcome::invalid;
  double sentAt = 0;        // of the acknowledged frame
  double oldestSentAt = 0;  // of the first frame that was outstanding
};
Acknowledgement acknowledge(Peer& peer, std::uint64_t frameID);

// What to do with an encoded frame for one peer. The order of the tests is part of the protocol.
enum class DeliveryChoice { skip, dropForCredit, dropForSend, waitForKeyFrame, send };
DeliveryChoice chooseDelivery(const Peer& peer, bool keyframe);

// Whether the peer missed the hello, send or acknowledgement deadline at uptime `now`.
bool isOverdue(const Peer& peer, double now);

// Whether a new connection may become a peer beside those already there.
bool admitsConnection(std::size_t authenticated, std::size_t waiting);

}  // namespace lumora
