#include "codec/libav_session.h"

#include <utility>

#include "codec/encoding_worker.h"

namespace lumora {
namespace {

// Sets `field` if the property's value has the field's type.
template <typename Field>
Status assign(Field& field, const PropertyValue& value) {
  const auto* held = std::get_if<Field>(&value);
  if (held == nullptr) return AVERROR(EINVAL);
  field = *held;
  return 0;
}

// For what libavcodec sessions always or never do: only that answer is supported.
Status require(bool supported, const PropertyValue& value) {
  return value == PropertyValue(supported) ? 0 : AVERROR(ENOSYS);
}

}  // namespace

LibavSession::LibavSession(std::shared_ptr<EncoderPool> encoders, const EncoderRequest& request,
                           std::shared_ptr<PicturePool> pictures)
    : encoders_(std::move(encoders)),
      request_(request),
      pool_(request_.settings.width, request_.settings.height, std::move(pictures)) {}

LibavSession::~LibavSession() { invalidate(); }

Status LibavSession::setProperty(SessionProperty property, const PropertyValue& value) {
  switch (property) {
    case SessionProperty::realTime:
      return require(true, value);
    case SessionProperty::allowFrameReordering:
      return require(false, value);
    case SessionProperty::profileLevel:
      return assign(request_.settings.profile, value);
    case SessionProperty::expectedFrameRate:
      return assign(request_.settings.frameRate, value);
    case SessionProperty::maxKeyFrameInterval:
      return assign(request_.settings.keyFrameInterval, value);
    case SessionProperty::maxKeyFrameIntervalDuration:
      // Presentation times run at the expected rate, so the frame count already says it.
      return std::holds_alternative<double>(value) ? 0 : AVERROR(EINVAL);
    case SessionProperty::averageBitRate:
      return assign(request_.settings.bitRate, value);
  }
  return AVERROR(EINVAL);
}

Status LibavSession::prepareToEncodeFrames() {
  worker_ = EncodingWorker::start(encoders_, request_);
  return worker_ ? 0 : AVERROR(EAGAIN);
}

Status LibavSession::encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime,
                                 FrameProperties properties, OutputHandler handler) {
  const bool taken = worker_ && worker_->enqueue({std::move(buffer), properties.forceKeyFrame,
                                                  std::move(handler)});
  return taken ? 0 : AVERROR_EXTERNAL;
}

void LibavSession::completeFrames() {
  if (worker_) worker_->complete();
}

void LibavSession::invalidate() {
  if (worker_) worker_->stop();
}

}  // namespace lumora
