#pragma once

// A compression session on libavcodec. Settings are collected; a worker thread of the session's own
// takes over a spare encoder or opens one, encodes one frame after the other and gives a sound
// encoder back in the end, none of which the state queue waits for: a take that starts or stops
// must not hold up the preview.

#include <memory>

#include "codec/encoder_source.h"
#include "codec/memory_pixel_buffers.h"
#include "platform/compression.h"

namespace lumora {

class EncodingWorker;

class LibavSession final : public CompressionSession {
 public:
  LibavSession(EncoderSource source, SessionKind kind, int width, int height);
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
  EncoderSource source_;
  EncoderSettings settings_;  // kind and size from the start, the rest from properties
  MemoryPixelBufferPool pool_;
  std::shared_ptr<EncodingWorker> worker_;
};

}  // namespace lumora
