#pragma once

// A helper's events.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include <lumora/export.h>
#include <lumora/frame_format.h>
#include <lumora/uptime.h>

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
  // Frames that the helper dropped: it was busy, nobody needed them, or they were undecodable.
  std::uint64_t droppedFrames = 0;
  std::uint64_t droppedClients = 0;
  // Records of sound that were dropped: they came too early or too late, or too much sound waited.
  // Set in the same events as `delivery`, if the helper gets sound.
  std::optional<std::uint64_t> droppedSound;
  Seconds encodeTime{};     // of the latest preview frame, without scaling
  bool isEncoding = false;  // now

  // How frames reach clients. Only one event a second has this.
  struct Delivery {
    std::uint64_t creditDrops = 0;  // the client had too many unacknowledged frames
    std::uint64_t sendDrops = 0;    // the client had not received the last frame yet
    std::uint64_t resyncDrops = 0;  // the client needed a key frame first
    std::uint64_t drops() const { return creditDrops + sendDrops + resyncDrops; }
    std::uint64_t resyncs = 0;             // how often a client fell behind
    Seconds roundTrip{};                   // from a frame to its acknowledgement, smoothed
    Seconds longestRoundTrip{};            // since the start
    Seconds oldestUnacknowledged{};        // age of the oldest unacknowledged frame, smoothed
    std::uint64_t unacknowledged = 0;      // now, of the client that has most
    std::uint64_t mostUnacknowledged = 0;  // since the start
  };
  std::optional<Delivery> delivery;

  // What is encoded. In the same events as `delivery`.
  struct Encoding {
    FrameSize preview;
    FrameSize take;
    std::uint64_t takeFrames = 0;     // encoded for takes
    Seconds takeEncodeTime{};         // of the latest of them, scaling included
    std::uint64_t failedTakes = 0;    // because a frame could not be encoded
    std::uint64_t mostMovieWork = 0;  // the most encoded frames that ever waited to be written
  };
  std::optional<Encoding> encoding;
};

enum class TakeState { starting, recording, finishing, saved, failed };

// Why a take has failed.
enum class TakeFailure {
  refused,      // the helper refused the take, so it never began
  failed,       // after it began
  noAnswer,     // the helper did not answer the start within 10 s
  helperEnded,  // before it was saved
};

// Comes when the state of a take changes, and about once a second. The helper repeats the last
// event of a take that is over, so `saved` and `failed` come often; a take's own handler gets them
// once.
struct Recording {
  std::string id;
  TakeState state = TakeState::starting;
  std::filesystem::path path;          // as asked for; in `saved`, where the movie is (may differ)
  std::string error;                   // why it failed, or why the movie has another name
  std::optional<TakeFailure> failure;  // only in `failed`; `error` has the words
  Seconds duration{};                  // final in `finishing` and `saved`
  std::uint64_t frames = 0;  // written; includes those that a stop time in the past removed
  // Lost by the encoder or the disk, or not decodable after such a loss (until the next key frame),
  // or captured before the start.
  std::uint64_t dropped = 0;
  std::uint64_t throttled = 0;  // skipped to keep the target rate
  FrameSize size;               // of the movie's pictures; 0 until it is known
  // The rate asked for, and the frames of the last second. Empty until the start is accepted.
  std::optional<int> targetFPS;
  std::optional<double> recentFPS;
  // In `saved`: the number of frames in the file. Only if the take's `keepFailed` was true.
  std::optional<std::uint64_t> framesInMovie;
  // How long the space above `minimumFree` lasts. Only while a take with that option records.
  std::optional<Seconds> timeLeft;
  std::string stoppedFor;     // "minimum_free" if the take was stopped for lack of space
  std::string frameLogError;  // why the log of frames failed; in the last event of a take
  // Only of a take with sound: how often silence was inserted or sound was cut to keep sound and
  // pictures together. The last event also says how much of the movie has no sound.
  std::optional<std::uint64_t> soundGaps;
  std::optional<Seconds> soundMissing;

  // What is left of a failed take.
  struct Kept {
    std::filesystem::path path;
    std::uint64_t frames = 0;
    Seconds duration{};
  };
  std::optional<Kept> kept;
  bool isOver() const { return state == TakeState::saved || state == TakeState::failed; }
};

// Why the helper ends. The exit status is then 1, unless the helper was already ending: the first
// cause decides the status.
struct Error {
  std::string message;
};

// The helper has ended; the last event.
struct Exited {
  int status = 0;  // -1: unknown, because SIGCHLD is ignored or other code collected it
  // The signal that ended the helper, or 0. SIGKILL if the helper still ran when `stop` gave up.
  int signal = 0;
  Seconds cpuTime{};  // user and system time of the helper
  // For people: the helper's last `Error`, or why it did not become ready. Else empty.
  std::string reason = {};
  bool isClean() const { return status == 0 && signal == 0; }
};
// "status 1", "signal 9", or "an unknown status".
LUMORA_CLIENT_EXPORT std::string toText(const Exited& end);

struct Event {
  // The helper's own line without its line feed; empty for Exited.
  std::string line;
  // std::monostate: an event that this library does not know.
  std::variant<std::monostate, Ready, Stats, Recording, Error, Exited> what;
};

// Throws only std::bad_alloc.
LUMORA_CLIENT_EXPORT Event parseEvent(std::string line);

}  // namespace lumora::client
