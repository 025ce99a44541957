#include "codec/libav_encoders.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "base/process_heap.h"
#include "codec/libav_session.h"

namespace lumora {
namespace {

const std::vector<std::string>& hardwareEncoders() {
  static const std::vector<std::string> names = {"h264_videotoolbox", "h264_nvenc", "h264_qsv",
                                                 "h264_v4l2m2m", "h264_vaapi"};
  return names;
}

std::vector<std::string> candidates(const std::string& choice) {
  if (choice == "software") return {softwareEncoder};
  if (choice == "hardware") return hardwareEncoders();
  if (!choice.empty() && choice != "auto") return {choice};
  std::vector<std::string> names = hardwareEncoders();
  names.emplace_back(softwareEncoder);
  return names;
}

// An encoder's pictures are allocated one by one, with the frames that it gets.
constexpr int picturesToWarm = 4;

// The first of `names` that works with the expected settings, for which its encoder becomes a spare
// one, or with those of a common take, since one that can't take a tiny preview may still record;
// null when none does.
const AVCodec* chooseEncoder(const std::vector<std::string>& names, CodecChoice choice,
                             const EncoderSettings& expected, SpareEncoders& spares) {
  const EncoderSettings common{
      SessionKind::recording, 1280, 720, ProfileLevel::highAuto, 60, 60, 12'000'000};
  for (const std::string& name : names) {
    choice.codec = avcodec_find_encoder_by_name(name.c_str());
    if (choice.codec == nullptr || choice.codec->id != AV_CODEC_ID_H264) continue;
    const auto deadline = OpeningClock::now() + longestOpening;
    std::unique_ptr<LibavEncoder> encoder;
    if (openBy(deadline, choice, expected, picturesToWarm, encoder) == 0) {
      spares.keep(expected, std::move(encoder));
      return choice.codec;
    }
    if (openBy(deadline, choice, common, picturesToWarm, encoder) == 0) return choice.codec;
  }
  return nullptr;
}

// What a take of this size touches, encoder and pixel buffer: measured, with the gaps that aligned
// blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

void openNext(const CodecChoice& choice, SpareEncoders& spares) {
  const auto order = spares.beginOpening();
  if (!order) return;
  std::unique_ptr<LibavEncoder> encoder;
  openBy(OpeningClock::now() + longestOpening, choice, order->settings, 0, encoder);
  spares.endOpening(order->settings, std::move(encoder));
}

}  // namespace

LibavEncoders::LibavEncoders(const std::string& choice, std::shared_ptr<SerialQueue> stateQueue,
                             std::shared_ptr<Dispatch> dispatch,
                             std::shared_ptr<PicturePool> pictures, OpenEncoder open)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      spares_(std::make_shared<SpareEncoders>(opener_)),
      codec_(chosen_->get_future()) {
  const auto colon = std::min(choice.find(':'), choice.size());
  names_ = candidates(choice.substr(0, colon));
  if (colon < choice.size()) common_.preset = choice.substr(colon + 1);
  common_.pictures = std::move(pictures);
  common_.open = std::move(open);
  if (names_.back() == softwareEncoder) {
    common_.substitute = avcodec_find_encoder_by_name(softwareEncoder);
  }
}

void LibavEncoders::prepare(const EncoderSettings& expected) {
  chosenBy_ = OpeningClock::now() + longestOpening;
  opener_->async([names = names_, common = common_, expected, spares = spares_, chosen = chosen_] {
    chosen->set_value(chooseEncoder(names, common, expected, *spares));
  });
}

void LibavEncoders::expect(const std::vector<EncoderSettings>& settings) {
  dispatch_->runDetached(
      "lumora.memory", [self = shared_from_this(), settings, stop = taken_.get_token()] {
        const AVCodec* codec = self->codec_.get();
        if (codec == nullptr) return;
        std::size_t memory = 0;
        for (const EncoderSettings& each : settings) memory = std::max(memory, workingMemory(each));
        if (!isHardware(*codec)) {
          touchMemoryAhead(memory, stop);
          self->opener_->asyncAfter(SpareEncoders::lifetime, giveFreedMemoryBack);
        }
        if (!stop.stop_requested()) self->open({settings.front(), false});
      });
}

void LibavEncoders::openSoon(const EncoderSettings& settings) {
  taken_.request_stop();  // what is touched by now is needed by now
  open({settings, true});
}

void LibavEncoders::open(const SpareEncoders::Order& order) {
  spares_->order(order);
  opener_->async([choice = common_, codec = codec_, spares = spares_, order]() mutable {
    choice.codec = codec.get();
    if (choice.codec == nullptr) return;
    openNext(choice, *spares);
    if (order.soon) touchPixelBuffer(choice, order.settings);
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
  } else {
    // A driver that hangs is not waited for, nor are the spare encoders that would come after it.
    choice.codec = choice.substitute;
    spares = std::make_shared<SpareEncoders>(opener_);
  }
  if (choice.codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(choice, kind, width, height, std::move(spares));
  return 0;
}

}  // namespace lumora
