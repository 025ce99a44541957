#pragma once

// H.264 compression sessions as the encode pipeline sees them. A session owns a pool of pixel
// buffers and a worker; it takes one buffer per frame and answers each with one encoded sample.

#include <cstdint>
#include <functional>
#include <memory>
#include <variant>

#include "platform/image.h"
#include "platform/sample.h"

namespace lumora {

// What a pixel buffer shows.
struct BufferPicture {
  ImageView view;
  ChannelOrder order = ChannelOrder::bgra;
};

// One picture, made by a pool, which counts it until the last reference goes: in BGRA memory of its
// own, or wrapped around a picture of somebody else.
class PixelBuffer {
 public:
  virtual ~PixelBuffer() = default;
  virtual BufferPicture picture() = 0;
  // The buffer's own memory and its geometry. Null pixels for a wrapped picture.
  virtual MutableImageView memory() = 0;
};

class PixelBufferPool {
 public:
  virtual ~PixelBufferPool() = default;
  // A free buffer; fails instead of letting more than `threshold` buffers be in use at once.
  virtual Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) = 0;
  // The same around `picture` where it lies, held by `owner`; no buffer and 0 where the session
  // can't take it like this: of another size, for example.
  virtual Status wrap(const BufferPicture& picture, std::shared_ptr<const void> owner,
                      int threshold, std::shared_ptr<PixelBuffer>& buffer) = 0;
};

enum class SessionProperty {
  realTime,
  allowFrameReordering,
  profileLevel,
  expectedFrameRate,
  maxKeyFrameInterval,
  maxKeyFrameIntervalDuration,
  averageBitRate,
};

enum class ProfileLevel { baselineAuto, highAuto };

// What a session is for.
enum class SessionKind { preview, recording };

using PropertyValue = std::variant<bool, std::int64_t, double, ProfileLevel>;

// value / timescale seconds.
struct RationalTime {
  std::int64_t value = 0;
  std::int32_t timescale = 1;
};

struct FrameProperties {
  bool forceKeyFrame = false;
};

constexpr std::uint32_t infoFrameDropped = 0x2;
constexpr std::uint32_t infoNotPrepared = 0x100;  // the session could not be prepared after all

class CompressionSession {
 public:
  // Called once per submitted frame, on the session's worker thread. Does not throw.
  using OutputHandler = std::function<void(Status status, std::uint32_t infoFlags,
                                           const std::shared_ptr<const EncodedSample>& sample)>;

  virtual ~CompressionSession() = default;
  virtual Status setProperty(SessionProperty property, const PropertyValue& value) = 0;
  // May go on in the background: a failure then shows as the outcome of every frame, with
  // `infoNotPrepared`.
  virtual Status prepareToEncodeFrames() = 0;
  virtual PixelBufferPool* pixelBufferPool() = 0;
  virtual Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime presentationTime,
                             FrameProperties properties, OutputHandler handler) = 0;
  // Blocks until every submitted frame has reached its output handler.
  virtual void completeFrames() = 0;
  // After it no output is delivered.
  virtual void invalidate() = 0;
};

}  // namespace lumora
