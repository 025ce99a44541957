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

// An encoder allocates its pictures one by one, with the frames that it gets. The preview's has all
// of them before anybody is told that the service is ready; a take's finds memory that was touched.
constexpr int picturesToWarm = 4;

// The first of `names` that works for the preview, whose encoder becomes a spare one, or for a
// take, since one that can't take a tiny preview may still record; null when none does.
const AVCodec* chooseEncoder(const std::vector<std::string>& names, CodecChoice choice,
                             const EncoderSettings& preview, const EncoderSettings& take,
                             SpareEncoders& spares) {
  for (const std::string& name : names) {
    choice.codec = avcodec_find_encoder_by_name(name.c_str());
    if (choice.codec == nullptr || choice.codec->id != AV_CODEC_ID_H264) continue;
    const auto deadline = OpeningClock::now() + longestOpening;
    std::unique_ptr<LibavEncoder> encoder;
    if (openBy(deadline, choice, preview, picturesToWarm, encoder) == 0) {
      spares.give(preview, std::move(encoder));
      return choice.codec;
    }
    if (openBy(deadline, choice, take, picturesToWarm, encoder) == 0) return choice.codec;
  }
  return nullptr;
}

// What a take of this size touches, encoder and pixel buffer: measured, with the gaps that aligned
// blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

void openWanted(const CodecChoice& choice, SpareEncoders& spares) {
  const auto wanted = spares.beginOpening();
  if (!wanted) return;
  std::unique_ptr<LibavEncoder> encoder;
  openBy(OpeningClock::now() + longestOpening, choice, *wanted, 0, encoder);
  spares.endOpening(*wanted, std::move(encoder));
}

}  // namespace

LibavEncoders::LibavEncoders(const std::string& choice, std::shared_ptr<SerialQueue> stateQueue,
                             std::shared_ptr<Dispatch> dispatch,
                             std::shared_ptr<PicturePool> pictures, OpenEncoder open)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      spares_(std::make_shared<SpareEncoders>(opener_, giveFreedMemoryBack)),
      codec_(chosen_->get_future()) {
  const auto colon = std::min(choice.find(':'), choice.size());
  names_ = candidates(choice.substr(0, colon));
  if (colon < choice.size()) common_.preset = choice.substr(colon + 1);
  common_.pictures = std::move(pictures);
  common_.open = std::move(open);
  if (names_.size() > 1 && names_.back() == softwareEncoder) {
    common_.substitute = avcodec_find_encoder_by_name(softwareEncoder);
  }
}

void LibavEncoders::choose(const EncoderSettings& preview, const EncoderSettings& take) {
  chosenBy_ = OpeningClock::now() + longestOpening;
  opener_->async(
      [names = names_, common = common_, preview, take, spares = spares_, chosen = chosen_] {
        chosen->set_value(chooseEncoder(names, common, preview, take, *spares));
      });
}

void LibavEncoders::whenChosen(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

void LibavEncoders::warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) {
  const auto touch = [self = shared_from_this(), likeliest, largest, stop = needed_.get_token()] {
    const AVCodec* codec = self->codec_.get();
    if (codec == nullptr) return;
    if (!isHardware(*codec)) {
      touchMemoryAhead(workingMemory(largest), stop);
      self->opener_->asyncAfter(SpareEncoders::lifetime, giveFreedMemoryBack);
    }
    self->spares_->wantFirst(likeliest);
    self->openInBackground(std::nullopt);
  };
  dispatch_->runDetached("lumora.memory", touch);
}

void LibavEncoders::openAhead(const EncoderSettings& settings) {
  needed_.request_stop();  // what is touched by now is needed by now
  spares_->want(settings);
  openInBackground(settings);
}

// Opens what is wanted, then touches a buffer for a session with settings of `buffer`.
void LibavEncoders::openInBackground(const std::optional<EncoderSettings>& buffer) {
  opener_->async([choice = common_, codec = codec_, spares = spares_, buffer]() mutable {
    choice.codec = codec.get();
    if (choice.codec == nullptr) return;
    openWanted(choice, *spares);
    if (buffer) touchPixelBuffer(choice, *buffer);
  });
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
    spares = std::make_shared<SpareEncoders>(opener_, giveFreedMemoryBack);
  }
  if (choice.codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(choice, kind, width, height, std::move(spares));
  return 0;
}

}  // namespace lumora
