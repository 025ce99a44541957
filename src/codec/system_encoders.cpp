#include "codec/system_encoders.h"

#include <utility>

#include "base/out_of_memory.h"
#include "base/thread.h"
#include "codec/libav_session.h"

namespace lumora {
namespace {

// An encoder allocates memory for each of its first pictures. So the preview's encoder encodes this
// many grey pictures before the "ready" event. A take's encoder gets memory that was touched ahead.
constexpr int picturesToWarm = 4;

// The bytes that the encoder and the pixel buffer of a take touch. The factor was measured. It
// includes the gaps that aligned blocks leave in the heap.
std::size_t workingMemory(const EncoderSettings& settings) {
  return static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height) * 44;
}

EncoderFactory libavFactory(std::string preset, const PixelFormat& frames,
                            std::shared_ptr<PicturePool> pictures) {
  return [preset = std::move(preset), frames, pictures = std::move(pictures)](
             const AVCodec& codec, const EncoderSettings& settings,
             std::unique_ptr<LibavEncoder>& encoder) {
    return LibavEncoder::open(codec, preset, frames, pictures, settings, encoder);
  };
}

const AVCodec* findSoftwareEncoder() {
  for (const char* name : softwareEncoders)
    if (const AVCodec* found = avcodec_find_encoder_by_name(name)) return found;
  return nullptr;
}

}  // namespace

SystemEncoders::SystemEncoders(AllowedEncoders allowed, const PixelFormat& frames,
                               std::shared_ptr<SerialQueue> stateQueue,
                               std::shared_ptr<Dispatch> dispatch,
                               std::shared_ptr<PicturePool> pictures, EncoderFactory open)
    : stateQueue_(std::move(stateQueue)),
      dispatch_(std::move(dispatch)),
      opener_(dispatch_->makeQueue("lumora.opener")),
      pictures_(std::move(pictures)),
      frames_(frames),
      allowed_(std::move(allowed)),
      software_(allowed_.software ? findSoftwareEncoder() : nullptr),
      open_(open ? std::move(open) : libavFactory(allowed_.preset, frames_, pictures_)),
      pool_(std::make_shared<EncoderPool>(open_, opener_, trimHeap)) {}

void SystemEncoders::prepare(const EncoderSettings& preview, const EncoderSettings& take) {
  const auto probing = [self = shared_from_this(), preview, take] { self->probe(preview, take); };
  if (software_ == nullptr) {
    const auto probed = std::make_shared<std::promise<void>>();
    probed_ = probed->get_future();
    return opener_->async([probing, probed] {
      bestEffort(probing);
      probed->set_value();
    });
  }
  bestEffort([&] { pool_->openAhead(*software_, preview, picturesToWarm); });
  if (allowed_.hardware.empty()) return;
  bestEffort([&] { dispatch_->runDetached("lumora.probe", probing); });
}

// Tries the candidates in turn, each for a second at most. A driver that answers later is
// still used if no other was found.
void SystemEncoders::probe(const EncoderSettings& preview, const EncoderSettings& take) {
  for (const std::string& name : allowed_.hardware) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->id != AV_CODEC_ID_H264) continue;
    startTask("lumora.driver", [self = shared_from_this(), codec, preview, take] {
      self->tryHardware(*codec, preview, take);
    }).wait_for(longestOpening);
    if (hardware_ != nullptr) return;
  }
}

// A candidate works if it encodes a few pictures of `preview`, or else of `take`: one that can't
// encode a tiny preview may still record. The first that works is the hardware encoder of the run.
void SystemEncoders::tryHardware(const AVCodec& codec, const EncoderSettings& preview,
                                 const EncoderSettings& take) {
  for (const EncoderSettings& settings : {preview, take}) {
    OpenedEncoder opened = openNow(open_, codec, settings, 0);
    if (!opened.encoder) continue;
    const std::lock_guard hold(finding_);
    if (hardware_ != nullptr) return;
    // The pool gets this encoder before `hardware_` is set, so the first session in hardware finds
    // it there.
    pool_->keep(codec, settings, std::move(opened));
    hardware_ = &codec;
    // Once a take has started, no encoder is opened here: `openAhead` has chosen the take's, if one
    // was available.
    stateQueue_->async([self = shared_from_this(), take] {
      if (!self->takeStarted_.stop_requested()) self->openTakeAhead(self->available(), take);
    });
    return;
  }
}

void SystemEncoders::whenPrepared(Work work) {
  opener_->async([queue = stateQueue_, work = std::move(work)] { queue->async(work); });
}

void SystemEncoders::warmUp(const EncoderSettings& likeliest, const EncoderSettings& largest) {
  const auto warm = [self = shared_from_this(), likeliest, largest,
                     stop = takeStarted_.get_token()] {
    if (self->hardware_ == nullptr) touchMemoryAhead(workingMemory(largest), stop);
    // Checked on the state queue, where takes start. Once one has started, no encoder is opened.
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

// Null if no encoder has been found yet.
const AVCodec* SystemEncoders::available() const {
  const AVCodec* hardware = hardware_;
  return hardware != nullptr ? hardware : software_;
}

void SystemEncoders::openTakeAhead(const AVCodec* codec, const EncoderSettings& settings) {
  if (codec == nullptr) return;
  bestEffort([&] {
    pool_->openAhead(*codec, settings, 0);
    const PictureSize size{settings.width, settings.height};
    opener_->async([pictures = pictures_, frames = frames_, size] {
      std::shared_ptr<PixelBuffer> touched;
      bestEffort([&] { makeGreyBuffer(size, frames, pictures, touched); });
    });
  });
}

// The requirements are ignored: TAVO_H264_ENCODER decides whether hardware is required.
Status SystemEncoders::createSession(SessionKind kind, std::int32_t width, std::int32_t height,
                                     const EncoderRequirements&,
                                     std::shared_ptr<CompressionSession>& session) {
  if (probed_.valid()) probed_.wait();
  const AVCodec* codec = available();
  // A take uses the encoder that was opened for it, even if hardware was found since.
  if (kind == SessionKind::recording && nextTake_ != nullptr) {
    codec = std::exchange(nextTake_, nullptr);
  }
  if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
  const EncoderRequest request{
      .codec = codec,
      .substitute = codec == software_ ? nullptr : software_,
      .settings = {kind, width, height, ProfileLevel::baselineAuto, 0, 0, 0}};
  session = std::make_shared<LibavSession>(pool_, request, frames_, pictures_);
  return 0;
}

}  // namespace lumora
