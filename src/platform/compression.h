#pragma once

// H.264 compression sessions as the encode pipeline sees them. A session owns a pool of pixel
// buffers and a worker thread. It gets one buffer per frame and answers with one encoded sample.

#include <functional>
#include <variant>

#include "platform/image.h"
#include "platform/sample.h"

namespace lumora {

// A buffer with one picture. It has memory of its own, or is wrapped around the pixels of an
// existing picture. The picture has the frames' layout, with one exception: in the buffer's own
// memory, red and blue change places, so RGBA frames become BGRA, and BGRA frames RGBA. The pool
// that made the buffer counts it as in use until the last reference is gone.
class PixelBuffer {
 public:
  virtual ~PixelBuffer() = default;
  // Runs and frees the buffer's `Filling`, if there is one. Returns false if the filling fails; a
  // call after that returns true. The state queue may call it before it submits the buffer. After
  // that only the session's worker does, before it reads `picture`. May throw std::bad_alloc.
  virtual bool fill() = 0;
  virtual PictureView picture() = 0;
};

// Writes a picture into a buffer's own memory: false on failure.
using Filling = std::function<bool(const Picture& memory)>;

class PixelBufferPool {
 public:
  virtual ~PixelBufferPool() = default;
  // A buffer with memory of its own, not filled yet. Fails when `threshold` buffers are in use.
  virtual Status create(int threshold, Filling filling, std::shared_ptr<PixelBuffer>& buffer) = 0;
  // A buffer around the pixels of `picture`, which `owner` keeps alive. Fails when `threshold`
  // buffers are in use. Returns 0 without a buffer when the session can't encode these pixels in
  // place, for example because the size differs.
  virtual Status wrap(const PictureView& picture, std::shared_ptr<const void> owner, int threshold,
                      std::shared_ptr<PixelBuffer>& buffer) = 0;
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

constexpr Status fillingFailed = -6690;  // of a frame whose buffer could not be filled
constexpr std::uint32_t infoFrameDropped = 0x2;
constexpr std::uint32_t infoNotPrepared = 0x100;  // preparing failed in the background

class CompressionSession {
 public:
  // The worker calls it once per submitted frame until `invalidate`. A handler that throws
  // ends the process.
  using OutputHandler = std::function<void(Status status, std::uint32_t infoFlags,
                                           const std::shared_ptr<const EncodedSample>& sample)>;

  virtual ~CompressionSession() = default;
  virtual Status setProperty(SessionProperty property, const PropertyValue& value) = 0;
  // May return before the session is prepared. If preparing fails later, every frame is answered
  // with `infoNotPrepared` and the status of that failure.
  virtual Status prepareToEncodeFrames() = 0;
  virtual PixelBufferPool* pixelBufferPool() = 0;
  virtual Status encodeFrame(std::shared_ptr<PixelBuffer> buffer, RationalTime presentationTime,
                             FrameProperties properties, OutputHandler handler) = 0;
  // Blocks until every submitted frame has reached its output handler.
  virtual void completeFrames() = 0;
  // After this no buffer is filled and no output handler is called.
  virtual void invalidate() = 0;
};

}  // namespace lumora
