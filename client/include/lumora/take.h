#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <lumora/events.h>
#include <lumora/export.h>

namespace lumora::client {

struct TakeOptions {
  std::string path = {};  // absolute, ends in ".mp4"; nothing may exist there
  // The size and the rate: "640x360", "1080x720" or "1920x1080" at 15, 30, 45 or 60. Without both,
  // the take is 1080x720 (1080 wide) at 60. The picture is fitted between black bars.
  std::string resolution = {};
  int targetFPS = 0;
  bool steady = true;                    // keeps every frame of a camera at about targetFPS
  std::optional<double> startedAt = {};  // a capture time, at most 30 s ago; empty: now
  // If the take fails, what was recorded is kept, or what is on the disk if that is the cause.
  bool keepFailed = true;
  // The take is stopped and saved if its file system has fewer bytes left. Up to 2^53.
  std::optional<std::uint64_t> minimumFree = {};
  std::optional<int> bitRate = {};  // bits per second, 250,000 to 50,000,000; empty: 12,000,000
  int rotation = 0;                 // how far players turn it clockwise: 0, 90, 180 or 270
  bool frameLog = false;            // "<movie>.frames.csv" says what became of each frame
};

// A take. It ends exactly once, saved or failed, even if its helper dies, or says nothing of it for
// 10 s. Copies refer to the same take. Destroying them does not stop it. Any thread.
class LUMORA_CLIENT_EXPORT Take {
 public:
  class State;

  const std::string& id() const { return id_; }
  // The path of the file while the take runs. If the helper is killed, the file stays and plays.
  std::string stagingPath() const;
  // Stops the take at this time, or now. Frames that the helper reads later are left out. It reads
  // a frame a little after its capture, so stop one frame interval later to keep the last frame.
  // Calling it again does nothing. Throws std::invalid_argument for a time before the start, more
  // than 30 s ago or more than 50 ms ahead, because the helper would fail the take.
  void stop(std::optional<double> stoppedAt = std::nullopt);
  // The uptimes at which the take starts and stops.
  double startedAt() const;
  std::optional<double> stoppedAt() const;  // empty until it was stopped
  // The latest event about the take.
  Recording latest() const;
  // The event that ended it, `saved` or `failed`; empty when it has not ended within `seconds`.
  std::optional<Recording> waitForEnd(double seconds) const;

 private:
  friend class Helper;
  Take(std::string id, std::string path, std::shared_ptr<State> state);

  std::string id_;
  std::string path_;
  std::shared_ptr<State> state_;
};

}  // namespace lumora::client
