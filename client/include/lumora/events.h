#pragma once

// What a helper says, typed. Times are uptime seconds (see uptime.h), latencies milliseconds.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <lumora/export.h>

namespace lumora::client {

// Stream clients may connect, frames may be written.
struct Ready {
  std::uint16_t port = 0;
};

// Counters run from the helper's start.
struct Stats {
  std::uint64_t clients = 0;         // admitted
  std::uint64_t waitingClients = 0;  // that have not said hello
  std::uint64_t encodedFrames = 0;
  std::uint64_t droppedFrames = 0;  // at the input
  std::uint64_t droppedClients = 0;
  double encodeMilliseconds = 0;  // of the latest preview frame

  // In one report a second only.
  struct Delivery {
    std::uint64_t creditDrops = 0;  // too many frames unacknowledged
    std::uint64_t sendDrops = 0;    // the last send not taken yet
    std::uint64_t resyncDrops = 0;  // waiting for a key frame
    double roundTripMilliseconds = 0;
  };
  std::optional<Delivery> delivery;
};

enum class TakeState { starting, recording, finishing, saved, failed };

// A take at a change of its state, and once a second while it records.
struct Recording {
  std::string id;
  TakeState state = TakeState::starting;
  std::string path;             // once saved, where the movie is: another name if that was taken
  std::string error;            // why it failed, or is saved under another name
  double duration = 0;          // seconds, final from `finishing` on
  std::uint64_t frames = 0;     // in the movie
  std::uint64_t dropped = 0;    // lost
  std::uint64_t throttled = 0;  // left out for the rate
  bool isOver() const { return state == TakeState::saved || state == TakeState::failed; }
};

// Said just before the helper ends with status 1.
struct Error {
  std::string message;
};

// The helper has ended; the last event.
struct Exited {
  int status = 0;  // when it ended by itself; -1: somebody else has taken it (SIGCHLD ignored)
  int signal = 0;  // else what ended it
};

struct Event {
  // The helper's own line without its line feed; empty for its end.
  std::string line;
  // std::monostate: a line that this library does not know.
  std::variant<std::monostate, Ready, Stats, Recording, Error, Exited> what;
};

// Never throws.
LUMORA_CLIENT_EXPORT Event parseEvent(std::string line);

}  // namespace lumora::client
