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

// Opens an encoder: 0 or an AVERROR. May block for as long as a driver does.
using EncoderFactory = std::function<Status(const AVCodec&, const EncoderSettings&,
                                            std::unique_ptr<LibavEncoder>& encoder)>;

// An encoder, or the AVERROR for which there is none.
struct OpenedEncoder {
  Status status = 0;
  std::unique_ptr<LibavEncoder> encoder = {};
  bool isSubstitute = false;  // for the codec that was requested
};

// Whether a device driver encodes. Drivers may hang, refuse a session or a size, and limit how many
// encoders are open.
bool isHardware(const AVCodec& codec);

// Opens an encoder and encodes some grey `pictures`. Hardware encodes at least two, since some
// drivers refuse only then. Blocks for as long as the driver does. Never throws.
OpenedEncoder openNow(const EncoderFactory& open, const AVCodec& codec,
                      const EncoderSettings& settings, int pictures);

// The same, but AVERROR(ETIMEDOUT) when hardware has not answered by the deadline. Never throws.
OpenedEncoder openBy(OpeningClock::time_point deadline, const EncoderFactory& open,
                     const AVCodec& codec, const EncoderSettings& settings, int pictures);

// Runs `work` on a thread of its own, which we abandon if its driver hangs. Throws
// std::system_error if no thread can be made.
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
