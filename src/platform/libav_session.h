#pragma once

// A compression session on libavcodec. Settings are collected, the encoder opens at the
// preparation, and a worker thread of the session's own encodes one frame after the other.

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/compression.h"
#include "platform/libav_encoder.h"
#include "platform/memory_pixel_buffers.h"

namespace lumora {

class LibavSession final : public CompressionSession {
 public:
  LibavSession(const AVCodec& codec, std::int32_t width, std::int32_t height);
  ~LibavSession() override;
  LibavSession(const LibavSession&) = delete;
  LibavSession& operator=(const LibavSession&) = delete;

  Status setProperty(SessionProperty property, const PropertyValue& value) override;
  Status prepareToEncodeFrames() override;
  PixelBufferPool* pixelBufferPool() override { return &pool_; }
  Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime presentationTime,
                     FrameProperties properties, OutputHandler handler) override;
  void completeFrames() override;
  void invalidate() override;

 private:
  struct Job {
    std::shared_ptr<PixelBuffer> buffer;
    std::int64_t time = 0;
    bool forceKeyFrame = false;
    OutputHandler handler;
  };

  void work();
  void encode(Job job);

  const AVCodec& codec_;
  EncoderSettings settings_;
  MemoryPixelBufferPool pool_;
  std::unique_ptr<LibavEncoder> encoder_;  // the worker's, once it runs

  std::mutex mutex_;  // guards the rest
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace lumora
