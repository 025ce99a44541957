#pragma once

// Chooses the H.264 encoder of this run and makes sessions with it. Encoders are opened ahead on a
// queue of their own, the opener's: first one candidate after the other, until one works.

#include <future>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "codec/spare_encoders.h"
#include "platform/encoders.h"

namespace lumora {

class LibavEncoders final : public Encoders, public std::enable_shared_from_this<LibavEncoders> {
 public:
  // `choice` is auto (hardware where there is one, else software), hardware, software, or the name
  // of a libavcodec encoder; "" is auto. A preset may follow: "software:ultrafast".
  LibavEncoders(const std::string& choice, std::shared_ptr<SerialQueue> stateQueue,
                std::shared_ptr<Dispatch> dispatch, std::shared_ptr<PicturePool> pictures,
                OpenEncoder open = LibavEncoder::open);
  void choose(const EncoderSettings& preview, const EncoderSettings& take) override;
  void whenChosen(Work work) override;
  void warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) override;
  void openAhead(const EncoderSettings& settings) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  void openInBackground(const std::optional<EncoderSettings>& buffer);

  std::shared_ptr<SerialQueue> stateQueue_;
  std::shared_ptr<Dispatch> dispatch_;
  std::shared_ptr<SerialQueue> opener_;
  std::shared_ptr<SpareEncoders> spares_;
  std::vector<std::string> names_;  // of the candidates, best first
  CodecChoice common_;
  std::shared_ptr<std::promise<const AVCodec*>> chosen_ =
      std::make_shared<std::promise<const AVCodec*>>();
  std::shared_future<const AVCodec*> codec_;
  OpeningClock::time_point chosenBy_;  // later, sessions go without the choice
  std::stop_source needed_;            // requested once the memory that is touched is needed
};

}  // namespace lumora
