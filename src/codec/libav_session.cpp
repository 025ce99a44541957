#include "codec/libav_session.h"

#include <list>
#include <system_error>
#include <utility>

#include "base/out_of_memory.h"
#include "base/process_heap.h"
#include "base/thread.h"

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

}  // namespace

// The frames that wait for a session's thread. The session and its thread share this object. The
// thread ends by itself after `stop`.
class LibavSession::Worker {
 public:
  struct Job {
    std::shared_ptr<PixelBuffer> buffer;
    bool forceKeyFrame = false;
    OutputHandler handler;
  };

  Worker(std::shared_ptr<EncoderPool> pool, const EncoderRequest& request)
      : pool_(std::move(pool)), request_(request) {}

  // The thread: runs until stopped.
  void run() {
    OpenedEncoder opened = pool_->acquire(request_, stop_.get_token());
    if (!encodeAll(opened)) opened.encoder.reset();
    pool_->release(request_, std::move(opened));
    bestEffort(trimHeapBeyondNeed);
  }

  // Returns false after `stop`.
  bool enqueue(Job job) {
    {
      const std::lock_guard hold(mutex_);
      if (stop_.stop_requested()) return false;
      jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
    return true;
  }

  // Waits until every frame has reached its handler.
  void complete() {
    std::unique_lock hold(mutex_);
    changed_.wait(hold, [this] { return stop_.stop_requested() || (jobs_.empty() && !busy_); });
  }

  // Drops the frames that wait. No handler begins after `stop` has returned.
  void stop() {
    std::list<Job> dropped;  // destroyed after the lock is released
    std::unique_lock hold(mutex_);
    if (stop_.request_stop()) pool_->beginRelease(request_);
    dropped.swap(jobs_);
    changed_.notify_all();
    changed_.wait(hold, [this] { return !busy_; });
  }

 private:
  // Encodes until stopped. False if there is no encoder, or if a frame could not be encoded.
  bool encodeAll(const OpenedEncoder& opened) {
    LibavEncoder* encoder = opened.encoder.get();
    bool isUsable = encoder != nullptr;
    std::unique_lock hold(mutex_);
    for (;;) {
      changed_.wait(hold, [this] { return stop_.stop_requested() || !jobs_.empty(); });
      if (stop_.stop_requested()) return isUsable;
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      busy_ = true;
      hold.unlock();
      std::shared_ptr<const EncodedSample> sample;
      Status status = opened.status;
      if (encoder != nullptr) {
        status = encoder->encode(std::move(job.buffer), job.forceKeyFrame, sample);
      }
      isUsable = isUsable && status == 0;
      job.handler(status, encoder != nullptr ? 0 : infoNotPrepared, sample);
      job = {};
      hold.lock();
      busy_ = false;
      changed_.notify_all();
    }
  }

  const std::shared_ptr<EncoderPool> pool_;
  const EncoderRequest request_;
  std::stop_source stop_;  // requested under the lock
  std::mutex mutex_;       // guards the rest
  std::condition_variable changed_;
  std::list<Job> jobs_;  // unlike a deque, an empty list allocates nothing
  bool busy_ = false;
};

LibavSession::LibavSession(std::shared_ptr<EncoderPool> encoders, const EncoderRequest& request,
                           const PixelFormat& frames, std::shared_ptr<PicturePool> pictures)
    : encoders_(std::move(encoders)),
      request_(request),
      pool_({request_.settings.width, request_.settings.height}, frames, std::move(pictures)) {}

LibavSession::~LibavSession() { invalidate(); }

Status LibavSession::setProperty(SessionProperty property, const PropertyValue& value) {
  switch (property) {
    case SessionProperty::realTime:  // always on
      return value == PropertyValue(true) ? 0 : AVERROR(ENOSYS);
    case SessionProperty::allowFrameReordering:  // always off
      return value == PropertyValue(false) ? 0 : AVERROR(ENOSYS);
    case SessionProperty::profileLevel:
      return assign(request_.settings.profile, value);
    case SessionProperty::expectedFrameRate:
      return assign(request_.settings.frameRate, value);
    case SessionProperty::maxKeyFrameInterval:
      return assign(request_.settings.keyFrameInterval, value);
    case SessionProperty::maxKeyFrameIntervalDuration:
      return 0;  // ignored: at the expected frame rate `maxKeyFrameInterval` has the same effect
    case SessionProperty::averageBitRate:
      return assign(request_.settings.bitRate, value);
  }
  return AVERROR(EINVAL);
}

Status LibavSession::prepareToEncodeFrames() try {
  const auto worker = std::make_shared<Worker>(encoders_, request_);
  startThread("lumora.encoder", [worker] { worker->run(); });
  worker_ = worker;
  return 0;
} catch (const std::system_error&) {
  return AVERROR(EAGAIN);  // no thread
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
