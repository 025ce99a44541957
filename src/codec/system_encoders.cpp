#include "codec/system_encoders.h"

#include <utility>

#include "base/out_of_memory.h"
#include "codec/libav_session.h"

namespace lumora {
namespace {

// An encoder allocates a picture with each of its first frames. The preview's encoder has all of
// them before "ready". A take's encoder finds memory that was touched ahead.
constexpr int picturesToWarm = 4;

// The memory that a take of this size touches, encoder and pixel buffer. Measured, with the gaps
// that aligned blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

EncoderFactory libavFactory(std::string preset, std::shared_ptr<PicturePool> pictures) {
  return [preset = std::move(preset), pictures = std::move(pictures)](
             const AVCodec& codec, const EncoderSettings& settings,
             std::unique_ptr<LibavEncoder>& encoder) {
    return LibavEncoder::open(codec, preset, pictures, settings, encoder);
  };
}

}  // namespace

SystemEncoders::SystemEncoders(AllowedEncoders allowed, std::shared_ptr<SerialQueue> stateQueue,
                               std::shared_ptr<Dispatch> dispatch,
                               std::shared_ptr<PicturePool> pictures, EncoderFactory open,
                               std::function<void()> trim)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      pictures_(std::move(pictures)),
      allowed_(std::move(allowed)),
      software_(allowed_.software ? avcodec_find_encoder_by_name(softwareEncoder) : nullptr),
      open_(open ? std::move(open) : libavFactory(allowed_.preset, pictures_)),
      pool_(std::make_shared<EncoderPool>(open_, opener_, std::move(trim))),
      probe_(std::make_shared<HardwareProbe>(open_, pool_)) {}

void SystemEncoders::prepare(const EncoderSettings& preview, const EncoderSettings& take) {
  const auto probe = [self = shared_from_this(), preview, take] {
    self->probe_->run(self->allowed_.hardware, preview, take, [self, take] {
      self->stateQueue_->async([self, take] { self->hardwareFound(take); });
    });
  };
  if (software_ != nullptr) {
    bestEffort([&] { pool_->openAhead(*software_, preview, picturesToWarm); });
    if (!allowed_.hardware.empty()) {
      bestEffort([&] { dispatch_->runDetached("lumora.probe", probe); });
    }
    return;
  }
  probedBy_ = OpeningClock::now() + allowed_.hardware.size() * longestOpening;
  opener_->async(probe);
}

void SystemEncoders::whenPrepared(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

void SystemEncoders::warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) {
  const auto warm = [self = shared_from_this(), likeliest, largest,
                     stop = takeStarted_.get_token()] {
    if (self->probe_->found() == nullptr) touchMemoryAhead(workingMemory(largest), stop);
    // On the state queue, where `openAhead` has precedence.
    self->stateQueue_->async([self, likeliest, stop] {
      if (!stop.stop_requested()) self->openTakeAhead(self->available(), likeliest);
    });
  };
  bestEffort([&] { dispatch_->runDetached("lumora.memory", warm); });
}

void SystemEncoders::openAhead(const EncoderSettings& settings) {
  takeStarted_.request_stop();
  nextTake_ = available();
  openTakeAhead(nextTake_, settings);
}

// Opens the next take's encoder, unless that take was started already.
void SystemEncoders::hardwareFound(const EncoderSettings& take) {
  if (nextTake_ == nullptr) openTakeAhead(available(), take);
}

// Null: none yet.
const AVCodec* SystemEncoders::available() const {
  const AVCodec* hardware = probe_->found();
  return hardware != nullptr ? hardware : software_;
}

void SystemEncoders::openTakeAhead(const AVCodec* codec, const EncoderSettings& settings) {
  if (codec == nullptr) return;
  bestEffort([&] {
    pool_->openAhead(*codec, settings, 0);
    opener_->async([pictures = pictures_, settings] {
      std::shared_ptr<PixelBuffer> touched;
      makeGreyBuffer(settings.width, settings.height, pictures, touched);
    });
  });
}

// The user decides whether hardware is required, not the session.
Status SystemEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                     const EncoderRequirements&,
                                     std::shared_ptr<CompressionSession>& session) {
  if (software_ == nullptr) probe_->waitUntil(probedBy_);
  const AVCodec* codec = available();
  // A take uses the encoder that was opened for it, even if hardware was found since.
  if (kind == SessionKind::recording && nextTake_ != nullptr) codec = nextTake_;
  if (kind == SessionKind::recording) nextTake_ = nullptr;
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  const EncoderRequest request{
      .codec = codec,
      .substitute = codec == software_ ? nullptr : software_,
      .settings = {kind, width, height, ProfileLevel::baselineAuto, 0, 0, 0}};
  session = std::make_shared<LibavSession>(pool_, request, pictures_);
  return 0;
}

}  // namespace lumora
