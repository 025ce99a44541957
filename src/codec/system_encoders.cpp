#include "codec/system_encoders.h"

#include <utility>

#include "base/out_of_memory.h"
#include "codec/libav_session.h"

namespace lumora {
namespace {

// An encoder allocates its pictures one by one, with the frames that it gets. The preview's has all
// of them before anybody is told that the service is ready; a take's finds memory that was touched.
constexpr int picturesToWarm = 4;

// What a take of this size touches, encoder and pixel buffer: measured, with the gaps that aligned
// blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

}  // namespace

LibavEncoders::LibavEncoders(EncoderChoice choice, std::shared_ptr<SerialQueue> stateQueue,
                             std::shared_ptr<Dispatch> dispatch,
                             std::shared_ptr<PicturePool> pictures, OpenEncoder open,
                             std::function<void()> trim)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      pictures_(std::move(pictures)),
      choice_(std::move(choice)),
      software_(choice_.software ? avcodec_find_encoder_by_name(softwareEncoder) : nullptr),
      source_(std::make_shared<EncoderSource>(open, opener_, std::move(trim))),
      probe_(std::make_shared<HardwareProbe>(std::move(open), spec(nullptr), source_)) {}

EncoderSpec LibavEncoders::spec(const AVCodec* codec) const {
  return {.codec = codec, .preset = choice_.preset, .pictures = pictures_};
}

void LibavEncoders::prepare(const EncoderSettings& preview, const EncoderSettings& take) {
  const auto probe = [self = shared_from_this(), preview, take] {
    self->probe_->run(self->choice_.hardware, preview, take, [self, take] {
      self->stateQueue_->async([self, take] { self->hardwareFound(take); });
    });
  };
  if (software_ != nullptr) {
    bestEffort([&] { source_->openAhead(spec(software_), preview, picturesToWarm); });
    if (!choice_.hardware.empty()) {
      bestEffort([&] { dispatch_->runDetached("lumora.probe", probe); });
    }
    return;
  }
  probedBy_ = OpeningClock::now() + choice_.hardware.size() * longestOpening;
  opener_->async(probe);
}

void LibavEncoders::whenPrepared(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

void LibavEncoders::warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) {
  const auto warm = [self = shared_from_this(), likeliest, largest, stop = needed_.get_token()] {
    if (self->probe_->found() == nullptr) touchMemoryAhead(workingMemory(largest), stop);
    // On the queue of `openAhead`, which has precedence.
    self->stateQueue_->async([self, likeliest, stop] {
      if (!stop.stop_requested()) self->openTakeAhead(self->available(), likeliest);
    });
  };
  bestEffort([&] { dispatch_->runDetached("lumora.memory", warm); });
}

void LibavEncoders::openAhead(const EncoderSettings& settings) {
  needed_.request_stop();  // a take needs its memory now
  nextTake_ = available();
  openTakeAhead(nextTake_, settings);
}

// The next take's encoder, unless that take has been started already.
void LibavEncoders::hardwareFound(const EncoderSettings& take) {
  if (nextTake_ == nullptr) openTakeAhead(available(), take);
}

// Null: none yet, or none at all.
const AVCodec* LibavEncoders::available() const {
  const AVCodec* hardware = probe_->found();
  return hardware != nullptr ? hardware : software_;
}

void LibavEncoders::openTakeAhead(const AVCodec* codec, const EncoderSettings& settings) {
  if (codec == nullptr) return;
  bestEffort([&] {
    source_->openAhead(spec(codec), settings, 0);
    opener_->async([spec = spec(codec), settings] { touchPixelBuffer(spec, settings); });
  });
}

// Whether hardware is required was said with the choice, not with the session: a machine without a
// hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                    const EncoderRequirements&,
                                    std::shared_ptr<CompressionSession>& session) {
  if (software_ == nullptr) probe_->waitUntil(probedBy_);
  const AVCodec* codec = available();
  // A take begins with the encoder that was opened for it, even if hardware was found meanwhile.
  if (kind == SessionKind::recording && nextTake_ != nullptr) codec = nextTake_;
  if (kind == SessionKind::recording) nextTake_ = nullptr;
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(
      source_,
      EncoderRequest{.spec = spec(codec),
                     .substitute = codec == software_ ? nullptr : software_,
                     .settings = {kind, width, height, ProfileLevel::baselineAuto, 0, 0, 0}});
  return 0;
}

}  // namespace lumora
