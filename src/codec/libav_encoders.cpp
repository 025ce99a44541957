#include "codec/libav_encoders.h"

#include <algorithm>
#include <chrono>
#include <cstring>
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
constexpr std::chrono::seconds longestChoice{1};

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
std::unique_ptr<LibavEncoder> openWarm(const CodecChoice& choice, const EncoderSettings& settings) {
  std::unique_ptr<LibavEncoder> encoder;
  if (LibavEncoder::open(choice, settings, encoder) < 0) return nullptr;
  MemoryPixelBufferPool pool(settings.width, settings.height, choice.pictures);
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

// The first of `names` that works with any of the expected settings, for which its encoder becomes
// a spare one; null when none does. One that can't take a tiny preview may still record.
const AVCodec* chooseEncoder(const std::vector<std::string>& names, CodecChoice common,
                             const std::vector<EncoderSettings>& expected, SpareEncoders& spares) {
  for (const std::string& name : names) {
    common.codec = avcodec_find_encoder_by_name(name.c_str());
    if (common.codec == nullptr || common.codec->id != AV_CODEC_ID_H264) continue;
    for (const EncoderSettings& settings : expected) {
      auto encoder = openWarm(common, settings);
      if (!encoder) continue;
      spares.give(settings, std::move(encoder));
      return common.codec;
    }
  }
  return nullptr;
}

}  // namespace

LibavEncoders::LibavEncoders(const std::string& choice, std::shared_ptr<SerialQueue> stateQueue,
                             Dispatch& dispatch, std::shared_ptr<PicturePool> pictures)
    : stateQueue_(std::move(stateQueue)),
      opener_(dispatch.makeQueue("lumora.opener")),
      chosen_(std::make_shared<std::promise<const AVCodec*>>()),
      codec_(chosen_->get_future()) {
  const auto colon = std::min(choice.find(':'), choice.size());
  common_.pictures = std::move(pictures);
  if (colon < choice.size()) common_.preset = choice.substr(colon + 1);
  names_ = candidates(choice.substr(0, colon));
}

void LibavEncoders::openAhead(const std::vector<EncoderSettings>& settings) {
  spares_->expect(settings);
  if (chosen_) chosenBy_ = std::chrono::steady_clock::now() + longestChoice;
  opener_->async([settings, names = names_, common = common_, spares = spares_, codec = codec_,
                  chosen = std::exchange(chosen_, nullptr)] {
    if (chosen) chosen->set_value(chooseEncoder(names, common, settings, *spares));
    const CodecChoice choice{codec.get(), common.preset, common.pictures};
    for (const EncoderSettings& wanted : settings) {
      if (!spares->isExpected(wanted)) continue;
      spares->give(wanted, choice.codec == nullptr ? nullptr : openWarm(choice, wanted));
    }
  });
}

void LibavEncoders::whenOpen(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

// Which hardware requirement the run has was said with the choice, not with the session: a
// machine without a hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                    const EncoderRequirements&,
                                    std::shared_ptr<CompressionSession>& session) {
  CodecChoice choice = common_;
  auto spares = spares_;
  if (codec_.wait_until(chosenBy_) == std::future_status::ready) {
    choice.codec = codec_.get();
  } else if (names_.back() == softwareEncoder) {
    // A driver that hangs is not waited for, nor are the spare encoders that would come after it.
    choice.codec = avcodec_find_encoder_by_name(softwareEncoder);
    spares = std::make_shared<SpareEncoders>();
  }
  if (choice.codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(choice, kind, width, height, std::move(spares));
  return 0;
}

}  // namespace lumora
