#pragma once

// Gives sessions their encoders. While a session opens its encoder, frames may be dropped. So an
// encoder for each kind of session can be opened ahead, on the queue `opener`. The encoder of a
// session that ended is kept for the next session. Any thread.

#include <array>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stop_token>

#include "codec/encoder_opening.h"
#include "platform/dispatch.h"

namespace lumora {

// The encoder that a session asks for.
struct EncoderRequest {
  const AVCodec* codec = nullptr;
  const AVCodec* substitute = nullptr;  // used if `codec` refuses; null: the session fails then
  EncoderSettings settings;
};

class EncoderPool : public std::enable_shared_from_this<EncoderPool> {
 public:
  // Unused encoders and memory are freed this many seconds after the last call of `openAhead` or
  // `release`, but not while a take runs.
  static constexpr double idleBeforeTrim = 60;

  EncoderPool(EncoderFactory open, std::shared_ptr<SerialQueue> opener, std::function<void()> trim)
      : open_(std::move(open)), opener_(std::move(opener)), trim_(std::move(trim)) {}

  // Opens an encoder in the background for the next session with these settings, and has it encode
  // `pictures` grey pictures. If an encoder with the same codec and settings already waits, opens
  // none. Otherwise the new encoder replaces the one that waits for the same kind of session, but
  // hardware replaces only hardware, and software only software.
  void openAhead(const AVCodec& codec, const EncoderSettings& settings, int pictures);
  // Keeps an open encoder for the next session, unless one already waits for that session.
  void keep(const AVCodec& codec, const EncoderSettings& settings, OpenedEncoder opened);

  // Returns the encoder opened ahead, or opens one. Each opening of hardware and each wait takes a
  // second at most. If hardware refuses, waits until stopped sessions have released their encoders,
  // and closes the encoders that were opened ahead. If either freed an encoder, asks the hardware
  // again. If there is still no encoder, opens the substitute. Returns AVERROR_EXIT if `stopped` is
  // requested before the call, or before the wait for other sessions has ended.
  OpenedEncoder acquire(const EncoderRequest& request, const std::stop_token& stopped);
  // Tells the pool that a session was stopped, and that its worker releases the encoder soon.
  void beginRelease(const EncoderRequest& request);
  // Called once for each `acquire`, after `beginRelease`. Keeps the encoder unless it is a
  // substitute.
  void release(const EncoderRequest& request, OpenedEncoder opened);

 private:
  // An encoder for the next session of its kind: a kept one, or one that the opener opens. If a
  // session takes it out of its slot before the opener has begun to open it, the session opens an
  // encoder itself.
  struct Ahead {
    const AVCodec* codec;
    EncoderSettings settings;
    bool isBegun;  // whether its opening has begun; constant once it is out of its slot
    std::promise<OpenedEncoder> opened = {};

    bool isFor(const AVCodec& wanted, const EncoderSettings& by) const {
      return codec == &wanted && settings == by;
    }
  };
  using Slots = std::array<std::shared_ptr<Ahead>, 4>;  // by kind of session, and by `isHardware`

  std::shared_ptr<Ahead>& slot(const AVCodec& codec, const EncoderSettings& settings);
  static OpenedEncoder resultOf(const std::shared_ptr<Ahead>& ahead);
  void openIfWanted(const std::shared_ptr<Ahead>& ahead, int pictures);
  bool closeAhead(const AVCodec& codec);
  void trimLater();
  void trim();

  const EncoderFactory open_;
  const std::shared_ptr<SerialQueue> opener_;
  const std::function<void()> trim_;
  std::atomic<std::uint64_t> trimAsked_ = 0;  // only the latest call of `trimLater` trims
  std::mutex mutex_;                          // guards the rest
  std::condition_variable_any released_;
  int releasing_ = 0;   // hardware encoders that stopped sessions still hold
  int recordings_ = 0;  // recording sessions that have an encoder or wait for one
  Slots ahead_;
};

}  // namespace lumora
