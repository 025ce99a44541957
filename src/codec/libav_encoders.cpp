#include "codec/libav_encoders.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "codec/libav_session.h"
#include "codec/memory_pixel_buffers.h"

namespace lumora {
namespace {

const std::vector<std::string>& hardwareEncoders() {
  static const std::vector<std::string> names = {"h264_videotoolbox", "h264_nvenc", "h264_qsv",
                                                 "h264_v4l2m2m", "h264_vaapi"};
  return names;
}

constexpr const char* softwareEncoder = "libx264";

constexpr std::chrono::milliseconds longestWarmUp{500};

std::vector<std::string> candidates(const std::string& choice) {
  if (choice == "software") return {softwareEncoder};
  if (choice == "hardware") return hardwareEncoders();
  if (!choice.empty() && choice != "auto") return {choice};
  std::vector<std::string> names = hardwareEncoders();
  names.emplace_back(softwareEncoder);
  return names;
}

// Opens an encoder and has it encode two grey pictures, a key frame and one that depends on it:
// that touches its memory, and that of a pixel buffer, for the first time. One that holds back
// pictures is of no use here, since one frame is in flight at a time: null, as when it can't be
// opened.
std::unique_ptr<LibavEncoder> openWarm(const AVCodec& codec, const EncoderSettings& settings) {
  std::unique_ptr<LibavEncoder> encoder;
  if (LibavEncoder::open(codec, settings, encoder) < 0) return nullptr;
  MemoryPixelBufferPool pool(settings.width, settings.height);
  std::shared_ptr<PixelBuffer> buffer;
  if (pool.create(1, buffer) != 0) return nullptr;
  const MutableImageView view = buffer->lock();
  std::memset(view.pixels, 128, static_cast<std::size_t>(view.stride * view.height));
  for (const bool keyFrame : {true, false}) {
    std::shared_ptr<const EncodedSample> sample;
    if (encoder->encode(view, keyFrame, sample) != 0 || !sample) return nullptr;
  }
  return encoder;
}

// The first of `names` that works with these settings, and an encoder of it; null when none does.
const AVCodec* chooseEncoder(const std::vector<std::string>& names, const EncoderSettings& settings,
                             std::unique_ptr<LibavEncoder>& encoder) {
  for (const std::string& name : names) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->id != AV_CODEC_ID_H264) continue;
    encoder = openWarm(*codec, settings);
    if (encoder) return codec;
  }
  return nullptr;
}

}  // namespace

LibavEncoders::LibavEncoders(const std::string& choice, std::vector<EncoderSettings> expected) {
  const auto colon = std::min(choice.find(':'), choice.size());
  if (colon < choice.size()) preset_ = choice.substr(colon + 1);
  for (EncoderSettings& settings : expected) settings.preset = preset_;
  spares_->expect(expected);
  std::promise<const AVCodec*> chosen;
  codec_ = chosen.get_future().share();
  std::thread([names = candidates(choice.substr(0, colon)), preset = preset_,
               expected = std::move(expected), spares = spares_,
               chosen = std::move(chosen)]() mutable {
    // Of a size that every encoder takes, and that most previews have.
    const EncoderSettings probe{.width = 640, .height = 360, .preset = preset};
    std::unique_ptr<LibavEncoder> probed;
    const AVCodec* codec = chooseEncoder(names, probe, probed);
    chosen.set_value(codec);
    for (const EncoderSettings& settings : expected) {
      std::unique_ptr<LibavEncoder> encoder;
      if (settings == probe)
        encoder = std::exchange(probed, nullptr);
      else if (codec != nullptr)
        encoder = openWarm(*codec, settings);
      spares->give(settings, std::move(encoder));
    }
  }).detach();
}

void LibavEncoders::waitUntilOpen() const { spares_->waitForExpected(longestWarmUp); }

// Which hardware requirement the run has was said with the choice, not with the session: a
// machine without a hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(std::int32_t width, std::int32_t height,
                                    const EncoderRequirements&,
                                    std::shared_ptr<CompressionSession>& session) {
  const AVCodec* codec = codec_.get();
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(
      *codec, EncoderSettings{.width = width, .height = height, .preset = preset_}, spares_);
  return 0;
}

}  // namespace lumora
