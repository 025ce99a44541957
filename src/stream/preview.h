#pragma once

// The preview: its encoder session, its clients, and counts over all of them, which are never
// reset. State queue only.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/compression.h"
#include "stream/peer.h"

namespace lumora {

// Frames that were withheld from a client, by cause.
struct DeliveryCounters {
  std::uint64_t creditDrops = 0;
  std::uint64_t sendDrops = 0;
  std::uint64_t resyncWaitDrops = 0;
  std::uint64_t idrResyncs = 0;               // episodes of falling behind
  std::size_t maxUnacknowledgedObserved = 0;  // of one peer

  void count(DeliveryChoice choice);
  void observe(std::size_t unacknowledged);
};

// Round trips in milliseconds.
struct AcknowledgementFigures {
  std::uint64_t acknowledgementSamples = 0;
  double acknowledgementRTT = 0;     // smoothed
  double acknowledgementOldest = 0;  // smoothed
  double acknowledgementRTTMaximum = 0;

  void record(const Acknowledgement& acknowledgement, double now);
};

struct Preview {
  std::shared_ptr<CompressionSession> session;  // made for one encode size
  std::int64_t width = 0;                       // pixels
  std::int64_t height = 0;                      // pixels
  bool forceIDR = true;                         // the next frame is encoded as a key frame
  std::int64_t ordinal = 0;                     // frames submitted
  double encodeMilliseconds = 0;                // of the latest frame
  std::uint64_t encodedFrames = 0;

  std::map<std::string, std::shared_ptr<Peer>> peers;  // by id
  std::uint64_t droppedPeers = 0;
  DeliveryCounters delivery;
  AcknowledgementFigures acknowledgements;

  std::size_t countClients() const;       // authenticated
  std::size_t countWaitingPeers() const;  // no "hello" yet
  // A copy of `peers` to iterate over, since a send may remove one.
  std::vector<std::shared_ptr<Peer>> snapshot() const;

  // Withholds frames from `peer` until the next key frame, which it requests.
  void resynchronise(Peer& peer);
  // False when the peer broke the protocol.
  bool takeAcknowledgement(Peer& peer, std::uint64_t frameID, double now);
  // Ends every connection and the session.
  void close();
};

}  // namespace lumora
