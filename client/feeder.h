#pragma once

#include <lumora/frame.h>

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "client/child_process.h"

namespace lumora::client {

// The way into a helper's standard input, on a thread of its own: at most one frame is being
// written and one waits; a newer one takes the place of the one that waits. Commands keep their
// place among the frames and are never dropped. Any thread.
class Feeder {
 public:
  explicit Feeder(std::shared_ptr<ChildProcess> helper);
  // Once the helper no longer reads, or has ended.
  ~Feeder();
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  // Throws std::invalid_argument unless ids grow.
  void write(Frame frame, std::uint64_t id);
  // False when the helper no longer reads.
  bool write(std::string commandRecord);
  // For a picture that found no slot.
  void countDropped();
  // Closes the input behind what is being written and what waits.
  void end();
  FrameCounts counts() const;

 private:
  struct Entry {
    std::optional<Frame> frame;
    std::uint64_t id = 0;
    std::string command;
  };

  void run();
  void dropWaitingFrame();
  bool writeEntry(const Entry& entry);

  const std::shared_ptr<ChildProcess> helper_;
  mutable std::mutex mutex_;  // guards the rest, but for the thread
  std::condition_variable changed_;
  std::list<Entry> waiting_;
  FrameCounts counts_;
  std::uint64_t lastID_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace lumora::client
