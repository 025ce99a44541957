#pragma once

// The preview: its encoder session, its peers (the clients of the TCP stream) and the rules for
// them. The counters cover all peers of the run, and are never reset. State queue only.

#include <deque>
#include <map>

#include "platform/compression.h"
#include "platform/network.h"

namespace lumora {

struct SentFrame {
  std::uint64_t id = 0;
  double sentAt = 0;  // uptime seconds
};

struct Peer {
  std::uint64_t id = 0;  // its key in `Preview::peers`, unique in a run
  std::shared_ptr<TcpConnection> connection;
  double acceptedAt = 0;  // uptime seconds
  bool authenticated = false;
  Bytes input;                           // the bytes received of the current line
  bool sending = false;                  // a send is outstanding, begun at `sendStarted`
  double sendStarted = 0;                // uptime seconds
  bool awaitingIDR = true;               // the next frame sent must be a key frame
  std::deque<SentFrame> unacknowledged;  // in send order
  std::uint64_t lastAcknowledged = 0;
  std::uint64_t lastSent = 0;
};

// Round trips and ages in milliseconds.
struct AcknowledgementFigures {
  std::uint64_t acknowledgementSamples = 0;
  double acknowledgementRTT = 0;     // smoothed
  double acknowledgementOldest = 0;  // age of the oldest unacknowledged frame, smoothed
  double acknowledgementRTTMaximum = 0;

  // All are uptimes. `sentAt`: when the frame that is acknowledged now was sent. `oldestSentAt`:
  // when the oldest frame without an acknowledgement was sent, before this acknowledgement.
  void record(double sentAt, double oldestSentAt, double now);
};

struct Preview {
  std::shared_ptr<CompressionSession> session;  // made for one encode size
  std::int64_t width = 0;                       // pixels
  std::int64_t height = 0;                      // pixels
  bool forceIDR = true;                         // the next frame is encoded as a key frame
  std::int64_t ordinal = 0;                     // frames submitted
  double encodeMilliseconds = 0;                // of the latest frame
  std::uint64_t encodedFrames = 0;

  std::map<std::uint64_t, std::shared_ptr<Peer>> peers;  // by id
  std::uint64_t lastPeerID = 0;
  std::uint64_t droppedPeers = 0;
  std::uint64_t creditDrops = 0;              // frames dropped: too many unacknowledged
  std::uint64_t sendDrops = 0;                // frames dropped: the last send is outstanding
  std::uint64_t resyncWaitDrops = 0;          // frames dropped: the peer waits for a key frame
  std::uint64_t idrResyncs = 0;               // times that a peer fell behind
  std::size_t maxUnacknowledgedObserved = 0;  // the most frames that any single peer had
  AcknowledgementFigures acknowledgements;

  std::size_t countAuthenticatedPeers() const;
  std::size_t countWaitingPeers() const;  // no "hello" yet
  // Null when that peer is gone.
  std::shared_ptr<Peer> find(std::uint64_t peerID) const;

  // The counter to raise if an encoded frame must be dropped for `peer`. Null when the frame can be
  // sent. If several reasons apply, returns the counter that is declared first.
  std::uint64_t* dropCounter(const Peer& peer, bool keyframe);
  // Drops frames for `peer` until the next key frame, and asks the encoder for one.
  void resynchronise(Peer& peer);
  // False when the peer broke the protocol.
  bool acknowledge(Peer& peer, std::uint64_t frameID, double now);
  // Closes every connection and the session.
  void close();
};

// Whether the peer missed the hello, send or acknowledgement deadline at uptime `now`.
bool isOverdue(const Peer& peer, double now);

}  // namespace lumora
