#pragma once

// A helper process, as a camera application drives it: frames and takes in, events out. Nothing
// here waits for the helper but the constructor, `stop` and the destructor, so a camera never
// stutters: what the helper does not take in time is dropped, whole, and counted. Any thread.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <lumora/events.h>
#include <lumora/export.h>
#include <lumora/frame.h>
#include <lumora/take.h>
#include <lumora/uptime.h>

namespace lumora::client {

// How pictures reach a helper: through its pipe, or in memory that it sees, too, where the system
// has such memory.
enum class FrameTransport { pipe, memory };

struct HelperOptions {
  // The program's path; empty: $LUMORA_VIDEO_PATH, else "lumora-video" on the PATH.
  std::string program = {};
  std::string token = {};                   // what stream clients present; empty: a random one
  std::vector<std::string> arguments = {};  // "--port", "4700", ...
  std::map<std::string, std::string> environment = {};  // on top of our own
  FrameTransport frames = FrameTransport::memory;
  // Of the frames to come, if it is known: their memory is touched while the helper starts, so that
  // the first ones are not late. Others are taken, too.
  std::optional<FrameSize> frameSize = {};
};

// The helper could not be started, or did not become ready; in words for a person.
struct LUMORA_CLIENT_EXPORT StartError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class LUMORA_CLIENT_EXPORT Helper {
 public:
  // Called for each event on a thread of the helper's own, one at a time, also before the
  // constructor has returned; must neither throw, nor stop or destroy the helper, nor wait for a
  // take's end.
  using EventHandler = std::function<void(const Event& event)>;

  // Starts a helper and waits until it is ready. Throws StartError, or std::invalid_argument for a
  // frame size that no helper takes.
  explicit Helper(const HelperOptions& options = {}, EventHandler onEvent = {});
  // Stops it.
  ~Helper();
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  std::uint16_t port()
      const;  // of its stream, on the loopback address unless it was told otherwise
  const std::string& token() const;
  int pid() const;

  // A place for the next picture; nothing when all are under way or with the application: leave
  // the picture out. Throws std::invalid_argument for a size that no helper takes.
  std::optional<Frame> acquireFrame(FrameSize size);
  // Hands a picture over. At most one waits: a newer one takes its place. Ids have to grow, and a
  // frame goes once, else std::invalid_argument; see `frameID`.
  void publish(Frame frame, std::uint64_t id);
  // The same with a copy of pixels that lie elsewhere. Whether they were taken.
  bool writeFrame(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  FrameCounts frameCounts() const;

  // Asks for a take behind the frames published so far. A refusal is its end: see `Take`. Throws
  // std::invalid_argument for a path or a time that makes no command.
  Take startTake(const TakeOptions& options);

  // How the helper ended; nothing while it runs.
  std::optional<Exited> exited() const;
  // Ends it: by the end of its input, upon which it saves a running take, and by force if that does
  // not help in 2.5 s. The last event has been told then.
  Exited stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora::client
