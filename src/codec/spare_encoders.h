#pragma once

// Encoders that are open but idle. Opening one and touching its memory for the first time takes
// longer than a frame lasts at 60 a second, so a session takes over a spare one where its settings
// fit, and gives it back in the end. What nobody uses for a minute is given back to the system.
//
// Spare encoders are ordered by anybody and opened, one after the other, by the opener. Any thread.

#include <condition_variable>
#include <deque>
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

  struct Order {
    EncoderSettings settings;
    bool soon;  // somebody is about to take it: to be opened before all others
    bool operator==(const Order&) const = default;
  };

  // `timers` runs what ends a spare one's life.
  explicit SpareEncoders(std::shared_ptr<SerialQueue> timers) : timers_(std::move(timers)) {}

  void order(const Order& wanted);
  // The next one to open, unless there is a spare one like it; `take` waits for it from now on.
  // One that it takes the place of is closed first: the new one gets its memory.
  std::optional<Order> beginOpening();
  // The one that was begun is open, or null when it could not be opened.
  void endOpening(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);

  // A spare encoder of these settings, or null; waits for it until `deadline` if it is being
  // opened.
  std::unique_ptr<LibavEncoder> take(const EncoderSettings& settings,
                                     OpeningClock::time_point deadline);
  void keep(const EncoderSettings& settings, std::unique_ptr<LibavEncoder> encoder);

 private:
  struct Spare {
    EncoderSettings settings;
    std::unique_ptr<LibavEncoder> encoder;
    std::uint64_t number;  // the how manieth that was kept
  };

  std::unique_ptr<LibavEncoder> release(std::vector<Spare>::iterator spare);
  std::unique_ptr<LibavEncoder> releaseSameKind(const EncoderSettings& settings);
  void drop(std::uint64_t number);

  const std::shared_ptr<SerialQueue> timers_;
  std::mutex mutex_;  // guards the rest
  std::condition_variable opened_;
  std::deque<Order> orders_;
  std::optional<EncoderSettings> opening_;
  std::vector<Spare> spares_;  // at most one per kind of session
  std::uint64_t kept_ = 0;
};

}  // namespace lumora
