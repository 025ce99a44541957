#pragma once

// Chooses the H.264 encoder of this run and makes sessions with it. Encoders are opened ahead on a
// thread of their own, the opener's; the first time it opens some, it chooses: it opens one
// candidate after the other and has it encode, until one works.

#include <chrono>
#include <future>
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
  // The first candidate that works with these settings, or with those of a common take.
  void prepare(const EncoderSettings& expected) override;
  void expect(const std::vector<EncoderSettings>& settings) override;
  void openSoon(const EncoderSettings& settings) override;
  void whenOpen(Work work) override;
  Status createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  void open(const SpareEncoders::Order& order);

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
  std::stop_source taken_;             // requested once a session came that was expected
};

}  // namespace lumora
