#pragma once

// Chooses the H.264 encoder of this run and makes sessions with it. Encoders are opened ahead on a
// queue of their own, the opener's: first one candidate after the other, until one works.

#include <future>
#include <optional>
#include <stop_token>
#include <string>

#include "base/process_heap.h"
#include "codec/encoder_choice.h"
#include "codec/encoder_source.h"
#include "platform/encoders.h"

namespace lumora {

class LibavEncoders final : public Encoders, public std::enable_shared_from_this<LibavEncoders> {
 public:
  LibavEncoders(EncoderChoice choice, std::shared_ptr<SerialQueue> stateQueue,
                std::shared_ptr<Dispatch> dispatch, std::shared_ptr<PicturePool> pictures,
                OpenEncoder open = LibavEncoder::open,
                std::function<void()> giveMemoryBack = trimHeap);
  void choose(const EncoderSettings& preview, const EncoderSettings& take) override;
  void whenChosen(Work work) override;
  void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) override;
  void openAhead(const EncoderSettings& settings) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  EncoderSource chosenSource() const;
  void openInBackground(const std::optional<EncoderSettings>& buffer);

  std::shared_ptr<SerialQueue> stateQueue_;
  std::shared_ptr<Dispatch> dispatch_;
  std::shared_ptr<SerialQueue> opener_;
  const std::function<void()> giveMemoryBack_;
  const EncoderChoice choice_;
  EncoderSource source_;  // without its codec
  std::promise<const AVCodec*> chosen_;
  std::shared_future<const AVCodec*> codec_;
  OpeningClock::time_point chosenBy_;  // later, sessions go without the choice
  std::stop_source needed_;            // requested once the memory that is touched is needed
};

}  // namespace lumora
