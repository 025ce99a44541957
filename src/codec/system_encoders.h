#pragma once

// Makes sessions with libavcodec's encoders. Probes for a hardware encoder, which new sessions
// use once it is found. If software is allowed, no session waits for the search: sessions that open
// before its end are encoded in software and stay in software. Otherwise sessions wait for the
// hardware that the user asked for.

#include "base/process_heap.h"
#include "codec/allowed_encoders.h"
#include "codec/encoder_pool.h"
#include "platform/encoders.h"

namespace lumora {

class SystemEncoders final : public Encoders, public std::enable_shared_from_this<SystemEncoders> {
 public:
  // Tests pass their own `open` and `trim`.
  SystemEncoders(AllowedEncoders allowed, const PixelFormat& frames,
                 std::shared_ptr<SerialQueue> stateQueue, std::shared_ptr<Dispatch> dispatch,
                 std::shared_ptr<PicturePool> pictures, EncoderFactory open = {},
                 std::function<void()> trim = trimHeap);
  void prepare(const EncoderSettings& preview, const EncoderSettings& take) override;
  void whenPrepared(Work work) override;
  void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) override;
  void openAhead(const EncoderSettings& settings) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  void probe(const EncoderSettings& preview, const EncoderSettings& take);
  void tryHardware(const AVCodec& codec, const EncoderSettings& preview,
                   const EncoderSettings& take);
  const AVCodec* available() const;
  void openTakeAhead(const AVCodec* codec, const EncoderSettings& settings);

  const std::shared_ptr<SerialQueue> stateQueue_;
  const std::shared_ptr<Dispatch> dispatch_;
  const std::shared_ptr<SerialQueue> opener_;
  const std::shared_ptr<PicturePool> pictures_;
  const PixelFormat frames_;
  const AllowedEncoders allowed_;
  const AVCodec* const software_;  // null: not allowed, or not available
  const EncoderFactory open_;
  const std::shared_ptr<EncoderPool> pool_;
  std::mutex finding_;                              // held to set `hardware_`
  std::atomic<const AVCodec*> hardware_ = nullptr;  // null: none found yet
  std::future<void> probed_;                        // without software: sessions wait for it
  std::stop_source takeStarted_;                    // ends the touching of memory
  const AVCodec* nextTake_ = nullptr;  // codec of the next take; null: whichever is available then
};

}  // namespace lumora
