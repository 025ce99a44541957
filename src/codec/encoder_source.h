#pragma once

// Gives sessions their encoders. Opening one takes a part of a frame's time, so one of each kind
// may be opened ahead, on the opener's queue. Any thread.

#include <array>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>

#include "codec/encoder_opening.h"
#include "platform/dispatch.h"

namespace lumora {

// What a session wants.
struct EncoderRequest {
  EncoderSpec spec;
  const AVCodec* substitute = nullptr;  // for a session that `spec.codec` refuses; null: it fails
  EncoderSettings settings;
};

class EncoderSource : public std::enable_shared_from_this<EncoderSource> {
 public:
  // Seconds after the last session, or after `trimLater`, until unused memory goes back to the
  // system.
  static constexpr double idleBeforeTrim = 60;

  EncoderSource(OpenEncoder open, std::shared_ptr<SerialQueue> opener, std::function<void()> trim)
      : open_(std::move(open)), opener_(std::move(opener)), trim_(std::move(trim)) {}

  // Opens an encoder in the background for the next session of these settings, and has it encode
  // some grey `pictures`. It takes the place of the one that waits for a session of that kind.
  void openAhead(const EncoderSpec& spec, const EncoderSettings& settings, int pictures);
  // The same with an encoder that is open already.
  void keepAhead(const EncoderSpec& spec, const EncoderSettings& settings, OpenResult opened);

  // The encoder that was opened ahead, or a new one, within about a second. Hardware may serve only
  // a few encoders: those that sessions are giving back are waited for, and where it still refuses,
  // those opened ahead are closed. Then the substitute takes its place.
  OpenResult take(const EncoderRequest& request);
  // A session ends; its worker gives the encoder back in a moment.
  void beginReturn();
  // Keeps the encoder, if there is one, for the next session of that kind. One call for each
  // `take`, behind `beginReturn`.
  void giveBack(const EncoderRequest& request, OpenResult opened);

  // Closes unused encoders and gives unused memory back in `idleBeforeTrim` seconds, unless a take
  // begins before. May throw for want of a timer.
  void trimLater();

 private:
  struct Ahead {
    const AVCodec* codec;
    EncoderSettings settings;
    std::future<OpenResult> opened;
  };

  std::optional<Ahead>& slot(SessionKind kind) { return ahead_[static_cast<std::size_t>(kind)]; }
  OpenResult takeAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                       OpeningClock::time_point deadline);
  bool closeAhead(OpeningClock::time_point deadline);
  void waitForReturns(OpeningClock::time_point deadline);

  const OpenEncoder open_;
  const std::shared_ptr<SerialQueue> opener_;
  const std::function<void()> trim_;
  std::mutex mutex_;  // guards the rest
  std::condition_variable returned_;
  int returning_ = 0;                          // encoders that sessions are giving back
  std::uint64_t use_ = 0;                      // a trim asked for before the latest use is void
  std::array<std::optional<Ahead>, 2> ahead_;  // by SessionKind
};

}  // namespace lumora
