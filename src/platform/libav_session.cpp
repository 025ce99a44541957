#include "platform/libav_session.h"

#include <pthread.h>

#include <utility>

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

LibavSession::LibavSession(const AVCodec& codec, std::int32_t width, std::int32_t height)
    : codec_(codec), pool_(width, height) {
  settings_.width = width;
  settings_.height = height;
}

LibavSession::~LibavSession() { invalidate(); }

Status LibavSession::setProperty(SessionProperty property, const PropertyValue& value) {
  switch (property) {
    case SessionProperty::realTime:
      return require(true, value);
    case SessionProperty::allowFrameReordering:
      return require(false, value);
    case SessionProperty::profileLevel:
      return assign(settings_.profile, value);
    case SessionProperty::expectedFrameRate:
      return assign(settings_.frameRate, value);
    case SessionProperty::maxKeyFrameInterval:
      return assign(settings_.keyFrameInterval, value);
    case SessionProperty::maxKeyFrameIntervalDuration:
      // Presentation times run at the expected rate, so the frame count already says it.
      return std::holds_alternative<double>(value) ? 0 : AVERROR(EINVAL);
    case SessionProperty::averageBitRate:
      return assign(settings_.bitRate, value);
  }
  return AVERROR(EINVAL);
}

Status LibavSession::prepareToEncodeFrames() {
  const Status status = LibavEncoder::open(codec_, settings_, encoder_);
  if (status < 0) return status;
  worker_ = std::thread([this] { work(); });
  return 0;
}

Status LibavSession::encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime presentationTime,
                                 FrameProperties properties, OutputHandler handler) {
  {
    const std::lock_guard hold(mutex_);
    if (stopping_ || !worker_.joinable()) return AVERROR_EXTERNAL;
    jobs_.push_back(
        {std::move(buffer), presentationTime.value, properties.forceKeyFrame, std::move(handler)});
  }
  changed_.notify_all();
  return 0;
}

void LibavSession::completeFrames() {
  std::unique_lock hold(mutex_);
  changed_.wait(hold, [this] { return stopping_ || (jobs_.empty() && !busy_); });
}

void LibavSession::invalidate() {
  {
    const std::lock_guard hold(mutex_);
    stopping_ = true;
    jobs_.clear();
  }
  changed_.notify_all();
  if (worker_.joinable()) worker_.join();
}

void LibavSession::work() {
  pthread_setname_np(pthread_self(), "lumora.encoder");
  std::unique_lock hold(mutex_);
  for (;;) {
    changed_.wait(hold, [this] { return stopping_ || !jobs_.empty(); });
    if (stopping_) return;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    busy_ = true;
    hold.unlock();
    encode(std::move(job));
    hold.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

void LibavSession::encode(Job job) {
  Status status = encoder_->load(job.buffer->lock());
  job.buffer->unlock();
  job.buffer.reset();  // the encoder has its own copy: the next frame may have the buffer
  std::shared_ptr<const EncodedSample> sample;
  if (status == 0) status = encoder_->encodeLoaded(job.time, job.forceKeyFrame, sample);
  {
    const std::lock_guard hold(mutex_);
    if (stopping_) return;
  }
  job.handler(status, 0, std::move(sample));
}

}  // namespace lumora
