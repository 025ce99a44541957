#pragma once

// Opening an encoder, with a limit on how long a driver may take. Any thread.

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include "base/thread_name.h"
#include "codec/libav_encoder.h"

namespace lumora {

using OpeningClock = std::chrono::steady_clock;
constexpr std::chrono::seconds longestOpening{1};

// Opens an encoder: 0 or an AVERROR. Drivers may take as long as they like.
using OpenEncoder = std::function<Status(const EncoderSpec&, const EncoderSettings&,
                                         std::unique_ptr<LibavEncoder>& encoder)>;

// An encoder, or why there is none: an AVERROR.
struct OpenResult {
  Status status = 0;
  std::unique_ptr<LibavEncoder> encoder = {};
  bool isSubstitute = false;  // in place of the one that was asked for
};

// Whether a device driver encodes. Drivers may hang, refuse a session or a size, and limit how many
// encoders are open.
bool isHardware(const AVCodec& codec);

// Opens an encoder and encodes some grey `pictures`; hardware encodes at least two, since some
// drivers refuse only then. Blocks for as long as the driver does. Never throws.
OpenResult openNow(const OpenEncoder& open, const EncoderSpec& spec,
                   const EncoderSettings& settings, int pictures);

// The same, but AVERROR(ETIMEDOUT) when hardware has not answered by the deadline. Never throws.
OpenResult openBy(OpeningClock::time_point deadline, const OpenEncoder& open,
                  const EncoderSpec& spec, const EncoderSettings& settings, int pictures);

// Touches the memory of a pixel buffer for a session of these settings.
void touchPixelBuffer(const EncoderSpec& spec, const EncoderSettings& settings);

// Runs `work` on a thread of its own, which is left behind with a driver that hangs. Throws
// std::system_error without a thread.
template <typename Work>
auto onDriverThread(Work work) {
  std::packaged_task<decltype(work())()> task([work = std::move(work)] {
    nameThread("lumora.driver");
    return work();
  });
  auto done = task.get_future();
  std::thread(std::move(task)).detach();
  return done;
}

}  // namespace lumora
