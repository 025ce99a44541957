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

  // Frames that clients did not get. Only one report a second has these figures.
  struct Delivery {
    std::uint64_t creditDrops = 0;  // the client had too many unacknowledged frames
    std::uint64_t sendDrops = 0;    // the client had not received the last frame yet
    std::uint64_t resyncDrops = 0;  // the client needed a key frame first
    std::uint64_t drops() const { return creditDrops + sendDrops + resyncDrops; }
    double roundTripMilliseconds = 0;
  };
  std::optional<Delivery> delivery;
};

enum class TakeState { starting, recording, finishing, saved, failed };

// Comes when the state of a take changes, and once a second while it records.
struct Recording {
  std::string id;
  TakeState state = TakeState::starting;
  std::string path;             // as asked for; in `saved`, of the movie, which may differ
  std::string error;            // why it failed, or is saved under another name
  double duration = 0;          // seconds, final from `finishing` on
  std::uint64_t frames = 0;     // written, even if a stop in the past removed them again
  std::uint64_t dropped = 0;    // lost
  std::uint64_t throttled = 0;  // skipped to keep the target rate
  // Frames in the file of a saved take. Only with `keepFailed`.
  std::optional<std::uint64_t> framesInMovie;
  // How long the space above `minimumFree` lasts. Only while a take with that option records.
  std::optional<double> secondsLeft;
  std::string stoppedFor;     // "minimum_free" if the take was stopped for lack of space
  std::string frameLogError;  // why the log of frames ended early; in the last event of a take

  // What is left of a failed take.
  struct Kept {
    std::string name;  // of the file, in the folder of the take
    std::uint64_t frames = 0;
    double duration = 0;  // seconds
  };
  std::optional<Kept> kept;
  bool isOver() const { return state == TakeState::saved || state == TakeState::failed; }
};

// Why the helper ends with status 1.
struct Error {
  std::string message;
};

// The helper has ended; the last event.
struct Exited {
  int status = 0;         // -1: unknown, because SIGCHLD is ignored or other code collected it
  int signal = 0;         // that ended the helper; 0: none
  double cpuSeconds = 0;  // user and system time of the helper
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
