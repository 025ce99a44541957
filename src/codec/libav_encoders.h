#pragma once

// Chooses the H.264 encoder of this run and makes sessions with it. The choice is made once, on a
// thread of its own from construction on: probing opens each candidate and has it encode,
// which also pays the first encoder's set-up before the first frame comes.

#include <future>
#include <string>
#include <vector>

#include "codec/spare_encoders.h"
#include "platform/compression.h"

namespace lumora {

class LibavEncoders final : public Encoders {
 public:
  // `choice` is auto (hardware where there is one, else software), hardware, software, or the name
  // of a libavcodec encoder; "" is auto. A preset may follow: "software:ultrafast".
  // Encoders of the `expected` settings are opened ahead of their sessions.
  LibavEncoders(const std::string& choice, std::vector<EncoderSettings> expected);
  // Until the expected encoders are open or known to fail, but not for long.
  void waitUntilOpen() const;
  Status createSession(std::int32_t width, std::int32_t height,
                       const EncoderRequirements& requirements,
                       std::shared_ptr<CompressionSession>& session) override;

 private:
  std::shared_ptr<SpareEncoders> spares_ = std::make_shared<SpareEncoders>();
  std::string preset_;
  std::shared_future<const AVCodec*> codec_;
};

}  // namespace lumora
