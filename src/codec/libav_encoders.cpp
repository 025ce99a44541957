#include "codec/libav_encoders.h"

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
      probe_(std::make_shared<HardwareProbe>(
          std::move(open), spec(nullptr),
          [source = source_](const EncoderSpec& spec, const EncoderSettings& settings,
                             OpenResult opened) {
            source->keepAhead(spec, settings, std::move(opened));
          })) {}

EncoderSpec LibavEncoders::spec(const AVCodec* codec) const {
  return {.codec = codec, .preset = choice_.preset, .pictures = pictures_};
}

void LibavEncoders::prepare(const EncoderSettings& preview, const EncoderSettings& take) {
  const auto probe = [probe = probe_, names = choice_.hardware, preview, take] {
    probe->run(names, preview, take);
  };
  if (software_ != nullptr) {
    bestEffort([&] { source_->openAhead(spec(software_), preview, picturesToWarm); });
    if (!choice_.hardware.empty())
      bestEffort([&] { dispatch_->runDetached("lumora.probe", probe); });
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
    if (self->software_ != nullptr) touchMemoryAhead(workingMemory(largest), stop);
    if (!stop.stop_requested()) self->openNextAhead(likeliest);
    self->source_->trimLater();
  };
  bestEffort([&] { dispatch_->runDetached("lumora.memory", warm); });
}

void LibavEncoders::openAhead(const EncoderSettings& settings) {
  needed_.request_stop();  // what is touched by now is needed by now
  bestEffort([&] { openNextAhead(settings); });
}

void LibavEncoders::openNextAhead(const EncoderSettings& settings) {
  const AVCodec* hardware = probe_->found();
  const AVCodec* codec = hardware != nullptr ? hardware : software_;
  if (codec == nullptr) return;
  source_->openAhead(spec(codec), settings, 0);
  opener_->async([spec = spec(codec), settings] { touchPixelBuffer(spec, settings); });
}

// Whether hardware is required was said with the choice, not with the session: a machine without a
// hardware encoder gets the software one only where the choice allows it.
Status LibavEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                    const EncoderRequirements&,
                                    std::shared_ptr<CompressionSession>& session) {
  const AVCodec* codec = software_ != nullptr ? probe_->found() : probe_->waitUntil(probedBy_);
  if (codec == nullptr) codec = software_;
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  session = std::make_shared<LibavSession>(
      source_,
      EncoderRequest{.spec = spec(codec),
                     .substitute = codec == software_ ? nullptr : software_,
                     .settings = {kind, width, height, ProfileLevel::baselineAuto, 0, 0, 0}});
  return 0;
}

}  // namespace lumora
