#pragma once

// Makes sessions with libavcodec's encoders, and searches for a hardware encoder. New sessions use
// that encoder once it is found. If there is no software encoder, sessions wait until the search
// has ended. If there is one, no session waits for the search. A session that is made before
// hardware is found stays in software. A take that starts before that does so, too, even if its
// session is made later.
//
//   AllowedEncoders -> SystemEncoders -> LibavSession -> EncoderPool -> LibavEncoder

#include "base/process_heap.h"
#include "codec/allowed_encoders.h"
#include "codec/encoder_pool.h"
#include "platform/encoders.h"

namespace lumora {

class SystemEncoders final : public Encoders, public std::enable_shared_from_this<SystemEncoders> {
 public:
  // An empty `open` stands for `LibavEncoder::open`. Only unit tests pass another.
  SystemEncoders(AllowedEncoders allowed, const PixelFormat& frames,
                 std::shared_ptr<SerialQueue> stateQueue, std::shared_ptr<Dispatch> dispatch,
                 std::shared_ptr<PicturePool> pictures, EncoderFactory open = {});
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
  std::future<void> probed_;                        // if `software_` is null, sessions wait for it
  std::stop_source takeStarted_;                    // stops the work of `warmUp`
  const AVCodec* nextTake_ = nullptr;  // codec for the next take's session; null: use `available()`
};

}  // namespace lumora
