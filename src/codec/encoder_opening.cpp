#include "codec/encoder_opening.h"

#include <algorithm>
#include <cstring>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "base/thread_name.h"
#include "codec/memory_pixel_buffers.h"

namespace lumora {
namespace {

Status makeGreyBuffer(const CodecChoice& choice, const EncoderSettings& settings,
                      std::shared_ptr<PixelBuffer>& buffer) {
  MemoryPixelBufferPool pool(settings.width, settings.height, choice.pictures);
  if (const Status status = pool.create(1, buffer); status != 0) return status;
  const MutableImageView view = buffer->lock();
  std::memset(view.pixels, 128, static_cast<std::size_t>(view.stride * view.height));
  buffer->unlock();
  return 0;
}

// A key frame, then pictures that depend on it. An encoder that holds pictures back fails here: it
// is of no use, since one frame is in flight at a time.
Status encodeGrey(LibavEncoder& encoder, const CodecChoice& choice, const EncoderSettings& settings,
                  int pictures) {
  std::shared_ptr<PixelBuffer> buffer;
  Status status = makeGreyBuffer(choice, settings, buffer);
  for (int i = 0; i < pictures && status == 0; ++i) {
    std::shared_ptr<const EncodedSample> sample;
    status = encoder.encode(buffer->picture(), i == 0, sample);
  }
  return status;
}

struct Opened {
  Status status;
  std::unique_ptr<LibavEncoder> encoder;
};

Opened open(const CodecChoice& choice, const EncoderSettings& settings, int pictures) {
  Opened opened{};
  opened.status = choice.open(choice, settings, opened.encoder);
  if (opened.status == 0 && pictures > 0) {
    opened.status = encodeGrey(*opened.encoder, choice, settings, pictures);
  }
  return opened;
}

// On a thread that is left behind with its driver should that hang.
std::future<Opened> openElsewhere(const CodecChoice& choice, const EncoderSettings& settings,
                                  int pictures) {
  std::packaged_task<Opened()> task([choice, settings, pictures] {
    nameThread("lumora.driver");
    return open(choice, settings, pictures);
  });
  auto opened = task.get_future();
  std::thread(std::move(task)).detach();
  return opened;
}

}  // namespace

bool isHardware(const AVCodec& codec) { return std::strcmp(codec.name, softwareEncoder) != 0; }

Status openBy(OpeningClock::time_point deadline, const CodecChoice& choice,
              const EncoderSettings& settings, int pictures,
              std::unique_ptr<LibavEncoder>& encoder) {
  Opened opened{};
  if (isHardware(*choice.codec)) {
    try {
      // Some drivers refuse no sooner than when they are to encode.
      auto later = openElsewhere(choice, settings, std::max(pictures, 2));
      if (later.wait_until(deadline) != std::future_status::ready) return AVERROR(ETIMEDOUT);
      opened = later.get();
    } catch (const std::system_error&) {
      return AVERROR(EAGAIN);  // no thread to be had
    }
  } else {
    opened = open(choice, settings, pictures);
  }
  if (opened.status == 0) encoder = std::move(opened.encoder);
  return opened.status;
}

void touchPixelBuffer(const CodecChoice& choice, const EncoderSettings& settings) {
  std::shared_ptr<PixelBuffer> buffer;
  makeGreyBuffer(choice, settings, buffer);
}

Status openForSession(OpeningClock::time_point deadline, const CodecChoice& choice,
                      const EncoderSettings& settings, std::unique_ptr<LibavEncoder>& encoder) {
  const Status status = openBy(deadline, choice, settings, 0, encoder);
  if (status == 0 || choice.substitute == nullptr) return status;
  CodecChoice instead = choice;
  instead.codec = choice.substitute;
  return choice.open(instead, settings, encoder);
}

}  // namespace lumora
