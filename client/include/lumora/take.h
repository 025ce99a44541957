#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <lumora/events.h>
#include <lumora/export.h>
#include <lumora/uptime.h>

namespace lumora::client {

enum class TakeSize { of640x360, of1080x720, of1920x1080 };
enum class TakeRate { fps15 = 15, fps30 = 30, fps45 = 45, fps60 = 60 };

// The size of a take's pictures, and their number per second. The camera's picture keeps its shape:
// it is scaled to fit between black bars.
struct TakeProfile {
  TakeSize size = TakeSize::of1080x720;
  TakeRate rate = TakeRate::fps60;
};

// "640x360", "1080x720" or "1920x1080". Empty for a size that no take has.
LUMORA_CLIENT_EXPORT std::string toText(TakeSize size);
LUMORA_CLIENT_EXPORT std::optional<TakeSize> parseTakeSize(std::string_view text);

struct TakeOptions {
  std::filesystem::path path = {};  // absolute, ends in ".mp4"; nothing may exist there
  TakeProfile profile = {};
  bool steady = true;  // keeps every frame of a camera that runs at about the profile's rate
  std::optional<Uptime::time_point> startedAt = {};  // a capture time, at most 30 s ago; empty: now
  // If the take fails after its first half second, what was recorded is kept. If the disk fails,
  // only what is on it is kept.
  bool keepFailed = true;
  // The take is stopped and saved when its file system has fewer free bytes than this, and fails
  // if that is so at its start. Up to 2^53.
  std::optional<std::uint64_t> minimumFree = {};
  std::optional<int> bitRate = {};  // bits per second, 250,000 to 50,000,000; empty: 12,000,000
  int rotation = 0;                 // players turn the movie clockwise: 0, 90, 180 or 270 degrees
  bool frameLog = false;            // "<movie>.frames.csv" says what became of each frame
  // A track of the sound that `writeSound` gets. Frames then need ids from `frameID`. The movie
  // shows each frame at its capture time. The helper must have `HelperOptions::sound`.
  bool sound = false;
  std::optional<int> soundBitRate = {};  // bits per second, 32,000 to 320,000; empty: 128,000
};

// A take. It ends exactly once: saved or failed. It fails if its helper dies, or does not answer
// the start within 10 s. Copies refer to the same take. Destroying them does not stop
// it. Any thread.
class LUMORA_CLIENT_EXPORT Take {
 public:
  class State;
  // Called for each event about a take. In the last one `isOver` is true.
  using EventHandler = std::function<void(const Recording& event)>;

  const std::string& id() const { return id_; }
  // The path of the file while the take runs. If the helper is killed, the file stays and plays.
  std::filesystem::path stagingPath() const;
  // Stops the take at this time. Without a time it stops now, or at its start if the start is still
  // ahead. The take lacks frames published after the call. A take with sound also lacks frames that
  // were captured after the stop time. A take without sound lacks those that the helper reads after
  // the stop time. The helper reads a frame a little after its capture. So to keep a frame as the
  // last one, give the time one frame interval after its capture. A second call does nothing.
  // Throws std::invalid_argument for a time before the start, more than 30 s ago or more than 50 ms
  // ahead, because the helper would fail the take.
  void stop(std::optional<Uptime::time_point> stoppedAt = std::nullopt);
  // When the take starts and stops.
  Uptime::time_point startedAt() const;
  std::optional<Uptime::time_point> stoppedAt() const;  // empty until `stop` is called
  // The latest event about the take.
  Recording latest() const;
  // The event that ended it, `saved` or `failed`; empty when it has not ended in time.
  [[nodiscard]] std::optional<Recording> waitForEnd(Seconds limit) const;

 private:
  friend class Helper;
  Take(std::string id, std::filesystem::path path, std::shared_ptr<State> state);

  std::string id_;
  std::filesystem::path path_;
  std::shared_ptr<State> state_;
};

}  // namespace lumora::client
