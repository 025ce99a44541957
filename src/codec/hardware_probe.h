#pragma once

// Finds the hardware encoder of the run: the first candidate that encodes a few pictures. Drivers
// may take seconds to answer, or never answer; a late answer counts from then on. Any thread.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "codec/encoder_pool.h"

namespace lumora {

class HardwareProbe : public std::enable_shared_from_this<HardwareProbe> {
 public:
  // `pool` gets the encoder that was opened, for the session that it fits.
  HardwareProbe(EncoderFactory open, std::shared_ptr<EncoderPool> pool)
      : open_(std::move(open)), pool_(std::move(pool)) {}

  // Tries the candidates in turn; blocks for a second a candidate at most. A candidate works if it
  // encodes `preview`, or else `take`: one that can't encode a tiny preview may still record. Calls
  // `whenFound` once, on the driver's thread.
  void run(const std::vector<std::string>& candidates, const EncoderSettings& preview,
           const EncoderSettings& take, const std::function<void()>& whenFound);

  // Null: none yet.
  const AVCodec* found() const { return found_; }
  // Waits until an encoder is found, `run` ends or the deadline passes. Null: none found by then.
  const AVCodec* waitUntil(OpeningClock::time_point deadline) const;

 private:
  void tryInTurn(const std::vector<std::string>& candidates, const EncoderSettings& preview,
                 const EncoderSettings& take, const std::function<void()>& whenFound);
  // Whether it becomes the encoder of the run.
  bool tryEncoder(const AVCodec& codec, const EncoderSettings& preview,
                  const EncoderSettings& take);

  const EncoderFactory open_;
  const std::shared_ptr<EncoderPool> pool_;
  std::atomic<const AVCodec*> found_ = nullptr;  // set under the lock
  mutable std::mutex mutex_;                     // guards the rest
  mutable std::condition_variable changed_;
  bool isOver_ = false;
};

}  // namespace lumora
