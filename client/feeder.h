#pragma once

#include <lumora/frame.h>

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "client/child_process.h"

namespace lumora::client {

// Writes frames, sound and commands to a helper's standard input, on a thread of its own. A newer
// frame replaces the one that waits, unless a command came in between: then both are written.
// Commands keep their order among the frames, and are dropped only if a write fails. Any thread.
class Feeder {
 public:
  explicit Feeder(std::shared_ptr<ChildProcess> helper);
  // Calls `end`. Waits until everything has been written, or until a write fails: the helper has
  // closed its input or was abandoned.
  ~Feeder();
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  // Throws std::invalid_argument for a frame that was published before or has no length, and for an
  // id that is not above the last one.
  void write(Frame frame, std::uint64_t id);
  // False after `end`, or once a write has failed.
  bool write(std::string commandRecord);
  // Throws std::invalid_argument if the channels have different numbers of samples. False when the
  // sound was skipped: after `end` or a failed write, if too much sound would wait, or if the time
  // is negative or more than `mostAhead` after now.
  bool writeSound(std::span<const std::int16_t> samples, SoundFormat format,
                  Uptime::time_point capturedAt);
  // Counts a frame that was skipped because it got no slot.
  void countDropped();
  // From now on drops new frames, but no commands or sound. Frames that already wait are written.
  void endFrames();
  // Closes the input once everything that waits has been written.
  void end();
  FrameCounts counts() const;

 private:
  struct Entry {
    std::optional<Frame> frame;
    std::uint64_t id = 0;
    std::string record = {};     // of one command, or the records of a sound
    std::size_t soundBytes = 0;  // of sound in `record`
  };

  void run();
  void dropOlderFrame();
  bool writeEntry(const Entry& entry);

  const std::shared_ptr<ChildProcess> helper_;
  mutable std::mutex mutex_;  // guards all below except the thread
  std::condition_variable changed_;
  std::list<Entry> waiting_;
  FrameCounts counts_;
  std::uint64_t lastID_ = 0;
  bool framesHaveEnded_ = false;
  std::uint64_t lastSoundID_ = 0;
  std::size_t soundBytes_ = 0;  // in `waiting_`
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace lumora::client
