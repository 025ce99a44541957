#pragma once

// A compression session on libavcodec. Settings are collected; a worker thread of the session's own
// gets an encoder, encodes one frame after the other and releases the encoder in the end. The state
// queue waits for none of it: a take that starts or stops must not hold up the preview.

#include <memory>

#include "codec/encoder_pool.h"
#include "codec/memory_pixel_buffers.h"
#include "platform/compression.h"

namespace lumora {

class EncodingWorker;

class LibavSession final : public CompressionSession {
 public:
  // The settings of `request` are kind and size; properties add the rest.
  LibavSession(std::shared_ptr<EncoderSource> source, EncoderRequest request);
  ~LibavSession() override;
  LibavSession(const LibavSession&) = delete;
  LibavSession& operator=(const LibavSession&) = delete;

  Status setProperty(SessionProperty property, const PropertyValue& value) override;
  // Begins to open the encoder.
  Status prepareToEncodeFrames() override;
  PixelBufferPool* pixelBufferPool() override { return &pool_; }
  Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime presentationTime,
                     FrameProperties properties, OutputHandler handler) override;
  void completeFrames() override;
  void invalidate() override;

 private:
  const std::shared_ptr<EncoderSource> source_;
  EncoderRequest request_;
  MemoryPixelBufferPool pool_;
  std::shared_ptr<EncodingWorker> worker_;
};

}  // namespace lumora
