#include "codec/encoding_worker.h"

#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "base/out_of_memory.h"
#include "base/process_heap.h"
#include "base/thread_name.h"

namespace lumora {

std::shared_ptr<EncodingWorker> EncodingWorker::start(std::shared_ptr<EncoderPool> pool,
                                                      const EncoderRequest& request) {
  std::shared_ptr<EncodingWorker> worker(new EncodingWorker(std::move(pool), request));
  try {
    std::thread([worker] {
      nameThread("lumora.encoder");
      worker->run();
    }).detach();
  } catch (const std::system_error&) {
    return nullptr;
  }
  return worker;
}

bool EncodingWorker::enqueue(Job job) {
  {
    const std::lock_guard hold(mutex_);
    if (stop_.stop_requested()) return false;
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
  return true;
}

void EncodingWorker::complete() {
  std::unique_lock hold(mutex_);
  changed_.wait(hold, [this] { return stop_.stop_requested() || (jobs_.empty() && !busy_); });
}

void EncodingWorker::stop() {
  std::list<Job> dropped;  // destroyed after the lock is released
  std::unique_lock hold(mutex_);
  if (stop_.request_stop()) pool_->beginRelease(request_);
  dropped.swap(jobs_);
  changed_.notify_all();
  changed_.wait(hold, [this] { return !busy_; });
}

void EncodingWorker::run() {
  OpenedEncoder opened = pool_->acquire(request_, stop_.get_token());
  if (!encodeAll(opened)) opened.encoder.reset();
  pool_->release(request_, std::move(opened));
  bestEffort(trimHeapBeyondNeed);
}

// Encodes until stopped. Whether the encoder never failed.
bool EncodingWorker::encodeAll(const OpenedEncoder& opened) {
  LibavEncoder* encoder = opened.encoder.get();
  bool isSound = encoder != nullptr;
  std::unique_lock hold(mutex_);
  for (;;) {
    changed_.wait(hold, [this] { return stop_.stop_requested() || !jobs_.empty(); });
    if (stop_.stop_requested()) return isSound;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    busy_ = true;
    hold.unlock();
    std::shared_ptr<const EncodedSample> sample;
    Status status = opened.status;
    if (encoder != nullptr) status = encode(*encoder, job, std::move(job.buffer), sample);
    isSound = isSound && status == 0;
    job.handler(status, encoder != nullptr ? 0 : infoNotPrepared, sample);
    job = {};
    hold.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

Status EncodingWorker::encode(LibavEncoder& encoder, const Job& job,
                              std::shared_ptr<PixelBuffer> buffer,
                              std::shared_ptr<const EncodedSample>& sample) try {
  const Status status = encoder.load(buffer->picture());
  buffer.reset();  // the encoder has its own copy, so the buffer is free for the next frame
  if (status < 0) return status;
  return encoder.encodeLoaded(job.forceKeyFrame, sample);
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

}  // namespace lumora
