#pragma once

// Encoders that are open but idle. Opening one takes a part of a frame's time, so a session takes
// over a spare one where its settings fit, and gives it back in the end; what nobody uses for a
// minute is closed. The opener opens spare ones ahead. Any thread.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "codec/encoder_opening.h"
#include "platform/dispatch.h"

namespace lumora {

class SpareEncoders : public std::enable_shared_from_this<SpareEncoders> {
 public:
  static constexpr double lifetime = 60;  // seconds

  // `timers` runs what ends a spare one's life, and `closed` after that.
  SpareEncoders(std::shared_ptr<SerialQueue> timers, std::function<void()> closed)
      : timers_(std::move(timers)), closed_(std::move(closed)) {}

  // One of these settings is to be opened, in place of what was wanted before.
  void want(const EncoderSettings& settings);
  // The same, unless something was ever wanted.
  void wantFirst(const EncoderSettings& settings);
  // For the opener: what is wanted, unless there is one like it; `take` waits for it from now on.
  // One that it takes the place of is closed first: the new one gets its memory.
  std::optional<EncoderSettings> beginOpening();
  // What was begun is open, or null when it could not be opened.
  void endOpening(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);

  // A spare encoder of these settings, or null; waits until `deadline` if it is being opened.
  std::unique_ptr<LibavEncoder> take(const EncoderSettings& settings,
                                     OpeningClock::time_point deadline);
  // Keeps `encoder`, in place of another one for the same kind of session; may throw for want of a
  // timer.
  void give(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);
  // Whether there were any.
  bool closeAll();

 private:
  struct Spare {
    EncoderSettings settings;
    std::unique_ptr<LibavEncoder> encoder;
    std::uint64_t generation;
  };

  std::unique_ptr<LibavEncoder> release(std::vector<Spare>::iterator spare);
  std::unique_ptr<LibavEncoder> releaseSameKind(const EncoderSettings& settings);
  void close(std::uint64_t generation);

  const std::shared_ptr<SerialQueue> timers_;
  const std::function<void()> closed_;
  std::atomic<std::uint64_t> generations_ = 0;
  std::mutex mutex_;  // guards the rest
  std::condition_variable opened_;
  std::optional<EncoderSettings> wanted_;
  bool everWanted_ = false;
  std::optional<EncoderSettings> opening_;
  std::vector<Spare> spares_;  // at most one per kind of session
};

}  // namespace lumora
