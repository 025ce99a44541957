#pragma once

// Chooses the H.264 encoder of this run and makes sessions with it. Encoders are opened ahead on a
// thread of their own, the opener's; the first time it opens some, it chooses: it opens one
// candidate after the other and has it encode, until one works.

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "codec/spare_encoders.h"
#include "platform/encoders.h"

namespace lumora {

class LibavEncoders final : public Encoders {
 public:
  // `choice` is auto (hardware where there is one, else software), hardware, software, or the name
  // of a libavcodec encoder; "" is auto. A preset may follow: "software:ultrafast".
  LibavEncoders(const std::string& choice, std::shared_ptr<SerialQueue> stateQueue,
                Dispatch& dispatch, std::shared_ptr<PicturePool> pictures);
  // The first time, the encoder of the run is chosen: one that works with any of these settings.
  void openAhead(const std::vector<EncoderSettings>& settings) override;
  void whenOpen(Work work) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  std::shared_ptr<SerialQueue> stateQueue_;
  std::shared_ptr<SerialQueue> opener_;
  std::shared_ptr<SpareEncoders> spares_ = std::make_shared<SpareEncoders>();
  std::vector<std::string> names_;  // of the candidates, best first
  CodecChoice common_{nullptr, {}, {}};
  std::shared_ptr<std::promise<const AVCodec*>> chosen_;  // until somebody is about to choose
  std::shared_future<const AVCodec*> codec_;
  std::chrono::steady_clock::time_point chosenBy_;  // later, sessions go without the choice
};

}  // namespace lumora
