#pragma once

// A helper process for a camera application: frames and takes go in, events come out. Only the
// constructor (without a queue), `stop` and the destructor wait for the helper. Feeding it never
// waits: if the helper is busy, the whole frame is dropped and counted. Any thread.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <lumora/event_queue.h>
#include <lumora/events.h>
#include <lumora/export.h>
#include <lumora/frame.h>
#include <lumora/frame_format.h>
#include <lumora/sound.h>
#include <lumora/take.h>
#include <lumora/uptime.h>

namespace lumora::client {

// How frames reach a helper: through its standard input, or in memory shared with it.
enum class FrameTransport { pipe, memory };

struct HelperOptions {
  // The program's path; empty: $LUMORA_VIDEO_PATH, else "lumora-video" on the PATH.
  std::filesystem::path program = {};
  // For stream clients: 16 to 128 characters of A-Z a-z 0-9 _ -. Empty: a random one.
  std::string token = {};
  std::vector<std::string> arguments = {};              // "--port", "4700", ...
  std::map<std::string, std::string> environment = {};  // added to the application's own
  FrameTransport frames = FrameTransport::memory;       // falls back to the pipe
  // The size of the frames, if it is known. Their memory is then touched while the helper starts,
  // so that the first frames are not late. Frames may also have other sizes.
  std::optional<FrameSize> frameSize = {};
  FrameFormat format = {};                // of all frames; by default RGBA, the bottom row first
  std::optional<SoundFormat> sound = {};  // what `writeSound` gets; empty: takes have no sound
  // Calls the handlers, including those of takes. With a queue the constructor returns at once.
  std::shared_ptr<EventQueue> queue = {};
};

// The helper could not be started, or did not become ready. The message is for people.
struct LUMORA_CLIENT_EXPORT StartError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class LUMORA_CLIENT_EXPORT Helper {
 public:
  // Called for each event, one at a time, and never after the helper's destructor. With a queue,
  // its `dispatch` calls the handler, which may do anything. Without a queue, a thread of the
  // library calls the handler, perhaps before the constructor has returned. Such a handler must not
  // throw. It must not stop or destroy the helper, and must not wait for the end of a take. It must
  // not wait for a thread that stops the helper, because that thread waits for the handler.
  using EventHandler = std::function<void(const Event& event)>;

  // Starts a helper. Without a queue, waits up to 10 s until it is ready. With one, `Ready` comes
  // as an event, or `Exited` with the reason. Throws StartError, std::bad_alloc, and
  // std::invalid_argument for an unsupported frame size, for a matrix or range that does not fit
  // the encoding, and for a format of sound or a token that no helper accepts.
  explicit Helper(const HelperOptions& options = {}, EventHandler onEvent = {});
  // Stops the helper. If `Exited` has come, waits only for a handler that runs on another thread.
  ~Helper();
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  // The port for stream clients; 0 until the helper is ready. The helper listens on the loopback
  // address unless an argument names another address.
  std::uint16_t port() const;
  const std::string& token() const;
  int pid() const;
  // The transport in use: the pipe if memory could not be shared. Known once the helper is ready.
  FrameTransport frameTransport() const;

  // A buffer for the next frame. Empty if all buffers are busy, or the helper is not ready yet:
  // skip this frame then. Throws std::invalid_argument for an unsupported size, and std::bad_alloc.
  [[nodiscard]] std::optional<Frame> acquireFrame(FrameSize size);
  // Passes a frame to the helper. If the previous frame still waits to be written, this one
  // replaces it, unless a take was started or stopped in between. Throws std::invalid_argument for
  // an id that is not above the last one (see `frameID`), for a frame of another format or one that
  // was published before, and for mjpeg without a length.
  void publish(Frame frame, std::uint64_t id);
  // Publishes a copy of a picture without padding. False if `acquireFrame` returned no buffer.
  // Throws what `acquireFrame`, `Frame::setLength` and `publish` throw.
  bool writeFrame(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> picture);
  FrameCounts frameCounts() const;

  // Passes sound to the helper. `capturedAt` is the time of the first sample. Never waits. False if
  // the sound was skipped: more than two seconds of sound would wait, the time is negative or more
  // than 50 ms ahead, or the helper ends. Throws std::invalid_argument if the channels have
  // different numbers of samples, or without `HelperOptions::sound`.
  bool writeSound(std::span<const std::int16_t> samples, Uptime::time_point capturedAt);

  // Starts a take after the frames published so far. The handler gets the take's events. If the
  // helper refuses the take, the only event is `failed`. The rules of `EventHandler` hold for the
  // handler. Without a queue it may be called before `startTake` returns, and if the helper has
  // ended, `startTake` itself calls it.
  // Throws std::invalid_argument for a path that is relative, too long, not UTF-8 or has another
  // ending than ".mp4", and for any other option out of range.
  [[nodiscard]] Take startTake(const TakeOptions& options, Take::EventHandler onEvent = {});

  // How the helper ended; empty while it runs.
  std::optional<Exited> exited() const;
  // Waits for the takes that were told to stop, and closes the helper's input, so that the helper
  // saves a running take and ends. If the helper does not end, `stop` sends SIGTERM and then
  // SIGKILL. `stop` gives up within 5 s. If the helper still runs then, `stop` reports SIGKILL.
  // If the helper has ended then and only another process holds its pipes open, `stop` reports how
  // the helper ended. When `stop` returns, every event has been handled, or is in the queue.
  Exited stop();
  // The same, but returns at once. `Exited` comes when it is done. Throws std::system_error if the
  // system has no thread left.
  void requestStop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora::client
