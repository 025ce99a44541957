#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <stop_token>

#include "codec/encoder_pool.h"
#include "platform/compression.h"

namespace lumora {

// The thread of one session and the frames that wait for it. The thread shares this object and ends
// by itself after `stop`.
class EncodingWorker {
 public:
  struct Job {
    std::shared_ptr<PixelBuffer> buffer;
    bool forceKeyFrame = false;
    CompressionSession::OutputHandler handler;  // runs on the worker's thread
  };

  // Null if no thread can be made.
  static std::shared_ptr<EncodingWorker> start(std::shared_ptr<EncoderPool> pool,
                                               const EncoderRequest& request);

  // False once it was stopped.
  bool enqueue(Job job);
  // Waits until every frame has reached its handler.
  void complete();
  // Drops the frames that wait. No handler begins after it has returned.
  void stop();

 private:
  EncodingWorker(std::shared_ptr<EncoderPool> pool, const EncoderRequest& request)
      : pool_(std::move(pool)), request_(request) {}
  void run();
  bool encodeAll(const OpenedEncoder& opened);
  static Status encode(LibavEncoder& encoder, const Job& job, std::shared_ptr<PixelBuffer> buffer,
                       std::shared_ptr<const EncodedSample>& sample);

  const std::shared_ptr<EncoderPool> pool_;
  const EncoderRequest request_;
  std::stop_source stop_;  // requested under the lock
  std::mutex mutex_;       // guards the rest
  std::condition_variable changed_;
  std::list<Job> jobs_;  // an empty one needs no memory
  bool busy_ = false;
};

}  // namespace lumora
