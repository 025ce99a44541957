#pragma once

// Gives sessions their encoders. Opening one takes a part of a frame's time, so one of each kind
// may be opened ahead, on the opener's queue, and an encoder outlives its session for the next one.
// Any thread.

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>

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
  // Seconds until unused encoders and memory go back to the system, after the last encoder was
  // opened ahead or released and while no take runs.
  static constexpr double idleBeforeTrim = 60;

  EncoderSource(OpenEncoder open, std::shared_ptr<SerialQueue> opener, std::function<void()> trim)
      : open_(std::move(open)), opener_(std::move(opener)), trim_(std::move(trim)) {}

  // Opens an encoder in the background for the next session of these settings, and has it encode
  // some grey `pictures`. Replaces the one of hardware or software, whichever it is, that was
  // opened ahead for the same kind of session.
  void openAhead(const EncoderSpec& spec, const EncoderSettings& settings, int pictures);
  // The same with an encoder that is open already.
  void replaceAhead(const EncoderSpec& spec, const EncoderSettings& settings, OpenResult opened);

  // The encoder opened ahead, or a new one. Each opening and each wait ends after a second. If
  // hardware refuses, it is asked again once the sessions that have been stopped have released
  // their encoders and those opened ahead are closed; then the substitute is opened. A session that
  // is stopped meanwhile gets none.
  OpenResult acquire(const EncoderRequest& request, const std::stop_token& stopped);
  // A session has been stopped; its worker releases the encoder in a moment.
  void beginRelease(const EncoderRequest& request);
  // Keeps the encoder, if there is one, for the next session of that kind. One call for each
  // `acquire`, after `beginRelease`.
  void release(const EncoderRequest& request, OpenResult opened);

 private:
  using Claim =
      std::atomic_flag;  // set by who opens the encoder: the opener, or its user before it
  struct Ahead {
    const AVCodec* codec;
    EncoderSettings settings;
    std::future<OpenResult> opened;
    std::shared_ptr<Claim> claim;
  };
  using EachAhead = std::array<std::optional<Ahead>, 4>;  // by kind of session, and by `isHardware`

  std::optional<Ahead>& slot(const EncoderSpec& spec, const EncoderSettings& settings);
  static Ahead makeAhead(const EncoderSpec& spec, const EncoderSettings& settings,
                         OpenResult opened);
  static OpenResult resultOf(Ahead& ahead);
  void keepAhead(const EncoderRequest& request, OpenResult opened);
  OpenResult takeAhead(const EncoderSpec& spec, const EncoderSettings& settings);
  OpenResult open(const EncoderSpec& spec, const EncoderSettings& settings);
  bool isReleasing();
  bool waitForReleases(const std::stop_token& stopped);
  bool closeAhead(const AVCodec& codec);
  void trimLater();
  void trim(std::uint64_t asked);

  const OpenEncoder open_;
  const std::shared_ptr<SerialQueue> opener_;
  const std::function<void()> trim_;
  std::mutex mutex_;  // guards the rest
  std::condition_variable_any released_;
  int releasing_ = 0;            // hardware encoders that stopped sessions still hold
  int recordings_ = 0;           // sessions that have an encoder or wait for one
  std::uint64_t trimAsked_ = 0;  // only the latest call trims
  EachAhead ahead_;
};

}  // namespace lumora
