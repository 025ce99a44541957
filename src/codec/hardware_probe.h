#pragma once

// Finds the hardware encoder of the run: the first candidate that encodes a few pictures. Drivers
// may take seconds to answer, or never answer; a late answer counts from then on. Any thread.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "codec/encoder_opening.h"

namespace lumora {

class HardwareProbe : public std::enable_shared_from_this<HardwareProbe> {
 public:
  // Called once, on the driver's thread, with the encoder that was opened.
  using FoundHandler =
      std::function<void(const EncoderSpec&, const EncoderSettings&, OpenResult opened)>;

  HardwareProbe(OpenEncoder open, EncoderSpec spec, FoundHandler found)
      : open_(std::move(open)), spec_(std::move(spec)), foundHandler_(std::move(found)) {}

  // Tries the candidates in turn and waits a second for each, so it blocks for a second a candidate
  // at most. One is found if it encodes `preview`, or else `take`: one that can't encode a tiny
  // preview may still record.
  void run(const std::vector<std::string>& candidates, const EncoderSettings& preview,
           const EncoderSettings& take);

  // Null: none yet.
  const AVCodec* found() const;
  // The same once there is one or `run` is over; after the deadline as it is then.
  const AVCodec* waitUntil(OpeningClock::time_point deadline) const;

 private:
  void tryEncoder(const EncoderSpec& spec, const EncoderSettings& preview,
                  const EncoderSettings& take);
  bool claim();
  void publish(const AVCodec& codec);

  const OpenEncoder open_;
  const EncoderSpec spec_;  // without its codec
  const FoundHandler foundHandler_;
  mutable std::mutex mutex_;  // guards the rest
  mutable std::condition_variable changed_;
  bool isClaimed_ = false;  // by the first that works
  const AVCodec* found_ = nullptr;
  bool isOver_ = false;
};

}  // namespace lumora
