#pragma once

// A helper's events. Times are seconds of the uptime clock (see uptime.h).

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
  std::uint64_t clients = 0;         // admitted now
  std::uint64_t waitingClients = 0;  // connected, but not admitted yet
  std::uint64_t encodedFrames = 0;
  std::uint64_t droppedFrames = 0;  // by the helper, because it was busy or nobody needed them
  std::uint64_t droppedClients = 0;
  double encodeMilliseconds = 0;  // of the latest preview frame

  // Frames that a client did not get. In one report a second.
  struct Delivery {
    std::uint64_t creditDrops = 0;  // it had too many frames unacknowledged
    std::uint64_t sendDrops = 0;    // it had not taken the last frame yet
    std::uint64_t resyncDrops = 0;  // it needed a key frame first
    std::uint64_t drops() const { return creditDrops + sendDrops + resyncDrops; }
    double roundTripMilliseconds = 0;
  };
  std::optional<Delivery> delivery;
};

enum class TakeState { starting, recording, finishing, saved, failed };

// A take at a change of its state, and once a second while it records.
struct Recording {
  std::string id;
  TakeState state = TakeState::starting;
  std::string path;             // once saved: of the movie, whose name differs if that was taken
  std::string error;            // why it failed, or is saved under another name
  double duration = 0;          // seconds, final from `finishing` on
  std::uint64_t frames = 0;     // written, also those that a stop in the past cut off again
  std::uint64_t dropped = 0;    // lost
  std::uint64_t throttled = 0;  // skipped to keep the target rate
  // Frames that the file has; of a saved take with `keepFailed`.
  std::optional<std::uint64_t> framesInMovie;
  // How long the space above `minimumFree` lasts; while a take with that option records.
  std::optional<double> secondsLeft;
  std::string stoppedFor;     // "minimum_free" if a lack of space has stopped the take
  std::string frameLogError;  // why the log of frames ended early; in the last event of a take

  // What a failed take has left.
  struct Kept {
    std::string name;  // of the file, in the folder of the take
    std::uint64_t frames = 0;
    double duration = 0;  // seconds
  };
  std::optional<Kept> kept;
  bool isOver() const { return state == TakeState::saved || state == TakeState::failed; }
};

// The helper ends with status 1, and this is why.
struct Error {
  std::string message;
};

// The helper has ended; the last event.
struct Exited {
  int status = 0;         // -1: unknown, because SIGCHLD is ignored or other code collected it
  int signal = 0;         // that ended it; 0: none
  double cpuSeconds = 0;  // user and system time that it took
  bool isClean() const { return status == 0 && signal == 0; }
};

struct Event {
  // The helper's own line without its line feed; empty for Exited.
  std::string line;
  // std::monostate: an event that this library does not know.
  std::variant<std::monostate, Ready, Stats, Recording, Error, Exited> what;
};

// Never throws.
LUMORA_CLIENT_EXPORT Event parseEvent(std::string line);

}  // namespace lumora::client
