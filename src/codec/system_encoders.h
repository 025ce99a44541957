#pragma once

// Makes sessions with libavcodec's encoders. Where software is allowed nothing waits for a driver:
// sessions are encoded in software until hardware has been found, and those that are open then stay
// so. Elsewhere sessions wait for the hardware that the user asked for.

#include <stop_token>

#include "base/process_heap.h"
#include "codec/allowed_encoders.h"
#include "codec/encoder_pool.h"
#include "codec/hardware_probe.h"
#include "platform/encoders.h"

namespace lumora {

class LibavEncoders final : public Encoders, public std::enable_shared_from_this<LibavEncoders> {
 public:
  LibavEncoders(EncoderChoice choice, std::shared_ptr<SerialQueue> stateQueue,
                std::shared_ptr<Dispatch> dispatch, std::shared_ptr<PicturePool> pictures,
                OpenEncoder open = LibavEncoder::open, std::function<void()> trim = trimHeap);
  void prepare(const EncoderSettings& preview, const EncoderSettings& take) override;
  void whenPrepared(Work work) override;
  void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) override;
  void openAhead(const EncoderSettings& settings) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  EncoderSpec spec(const AVCodec* codec) const;
  const AVCodec* available() const;
  void openTakeAhead(const AVCodec* codec, const EncoderSettings& settings);
  void hardwareFound(const EncoderSettings& take);

  const std::shared_ptr<SerialQueue> stateQueue_;
  const std::shared_ptr<Dispatch> dispatch_;
  const std::shared_ptr<SerialQueue> opener_;
  const std::shared_ptr<PicturePool> pictures_;
  const EncoderChoice choice_;
  const AVCodec* const software_;  // null: not allowed, or not to be had
  const std::shared_ptr<EncoderSource> source_;
  const std::shared_ptr<HardwareProbe> probe_;
  OpeningClock::time_point probedBy_;  // without software: sessions wait for hardware until then
  std::stop_source needed_;            // requested once the memory that is touched is needed
  const AVCodec* nextTake_ = nullptr;  // what was opened ahead for a take that was started
};

}  // namespace lumora
