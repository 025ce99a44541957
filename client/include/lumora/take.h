#pragma once

#include <memory>
#include <optional>
#include <string>

#include <lumora/events.h>
#include <lumora/export.h>

namespace lumora::client {

struct TakeOptions {
  std::string path = {};  // absolute, ends in ".mp4"; nothing may exist there
  // A profile and its rate, both or neither: "640x360", "1080x720", "1920x1080" at 15, 30, 45, 60.
  // Neither is 1080x720 (1080 wide) at 60. The picture is fitted between black bars.
  std::string resolution = {};
  int targetFPS = 0;
  bool steady = true;                    // every frame of a camera that runs at about targetFPS
  std::optional<double> startedAt = {};  // a capture time, at most 30 s ago; none: now
};

// A take that was asked for. Any thread. It has exactly one end, also when its helper dies. Copies
// are the same take; it goes on without any of them.
class LUMORA_CLIENT_EXPORT Take {
 public:
  class State;

  const std::string& id() const { return id_; }
  // Where the movie grows. When the helper is killed it stays, and plays.
  std::string stagingPath() const;
  // Ends it behind the frames published so far, at this capture time or now; a second time nothing
  // happens. One that the helper reads later than that is left out: a take whose last frame counts
  // ends when the next one would be due. Throws std::invalid_argument for a time before its start,
  // more than 30 s ago or 50 ms ahead, upon which a helper would give the take up.
  void stop(std::optional<double> stoppedAt = std::nullopt);
  // The uptimes from which and to which it lasts; nothing before it was stopped.
  double startedAt() const;
  std::optional<double> stoppedAt() const;
  // What was said of it last.
  Recording latest() const;
  // Its end, `saved` or `failed`; nothing when it has not come in so many seconds.
  std::optional<Recording> waitForEnd(double seconds) const;

 private:
  friend class Helper;
  Take(std::string id, std::string path, std::shared_ptr<State> state);

  std::string id_;
  std::string path_;
  std::shared_ptr<State> state_;
};

}  // namespace lumora::client
