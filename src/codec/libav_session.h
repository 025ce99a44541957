#pragma once

// A compression session on libavcodec. It collects settings until `prepareToEncodeFrames`. Then its
// worker thread acquires an encoder, fills and encodes one buffer after the other, and releases the
// encoder. Only when the process ends does the state queue wait for this thread. So an encoder that
// opens or closes slowly does not block that queue.

#include "codec/encoder_pool.h"
#include "codec/memory_pixel_buffers.h"

namespace lumora {

class LibavSession final : public CompressionSession {
 public:
  // Of the settings in `request`, only kind, width and height count. Properties set the others.
  LibavSession(std::shared_ptr<EncoderPool> encoders, const EncoderRequest& request,
               const PixelFormat& frames, std::shared_ptr<PicturePool> pictures);
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
  class Worker;

  const std::shared_ptr<EncoderPool> encoders_;
  EncoderRequest request_;
  MemoryPixelBufferPool pool_;
  std::shared_ptr<Worker> worker_;
};

}  // namespace lumora
