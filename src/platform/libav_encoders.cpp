#include "platform/libav_encoders.h"

#include <thread>
#include <utility>
#include <vector>

#include "platform/libav_session.h"

namespace lumora {
namespace {

const std::vector<std::string>& hardwareEncoders() {
  static const std::vector<std::string> names = {"h264_videotoolbox", "h264_nvenc", "h264_qsv",
                                                 "h264_v4l2m2m", "h264_vaapi"};
  return names;
}

constexpr const char* softwareEncoder = "libx264";

std::vector<std::string> candidates(const std::string& choice) {
  if (choice == "software") return {softwareEncoder};
  if (choice == "hardware") return hardwareEncoders();
  if (!choice.empty() && choice != "auto") return {choice};
  std::vector<std::string> names = hardwareEncoders();
  names.emplace_back(softwareEncoder);
  return names;
}

// An encoder that holds back its first picture is of no use here: one frame is in flight at a time.
bool encodesAtOnce(const AVCodec& codec) {
  constexpr int width = 640;
  constexpr int height = 360;
  std::unique_ptr<LibavEncoder> encoder;
  if (LibavEncoder::open(codec, {.width = width, .height = height}, encoder) < 0) return false;
  Bytes grey(std::size_t{width} * height * 4, 128);
  std::shared_ptr<const EncodedSample> sample;
  return encoder->encode({grey.data(), width, height, width * 4}, 1, true, sample) == 0 && sample;
}

}  // namespace

const AVCodec* chooseEncoder(const std::string& choice) {
  for (const std::string& name : candidates(choice)) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec != nullptr && codec->id == AV_CODEC_ID_H264 && encodesAtOnce(*codec)) return codec;
  }
  return nullptr;
}

LibavEncoders::LibavEncoders(std::string choice) {
  std::packaged_task<const AVCodec*()> choose(
      [choice = std::move(choice)] { return chooseEncoder(choice); });
  codec_ = choose.get_future().share();
  std::thread(std::move(choose)).detach();
}

// Which hardware requirement the run has was said with the choice, not with the specification: a
// machine without a hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(std::int32_t width, std::int32_t height,
                                    const EncoderSpecification&,
                                    std::shared_ptr<CompressionSession>& session) {
  const AVCodec* codec = codec_.get();
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(*codec, width, height);
  return 0;
}

}  // namespace lumora
