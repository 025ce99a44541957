#pragma once

// H.264 compression sessions as the encode pipeline sees them. A session owns a pool of BGRA
// buffers and a worker; it takes one buffer per frame and answers each with one encoded sample.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

// The outcome of a platform call: 0 is success, anything else is the platform's own code.
using Status = std::int32_t;

// One picture in BGRA, owned by its pool and returned to it when the last reference goes.
class PixelBuffer {
 public:
  virtual ~PixelBuffer() = default;
  // The buffer's memory and geometry; null pixels when it has no memory.
  virtual MutableImageView lock() = 0;
  virtual void unlock() = 0;
};

class PixelBufferPool {
 public:
  virtual ~PixelBufferPool() = default;
  // A free buffer; fails instead of letting more than `threshold` buffers be in use at once.
  virtual Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) = 0;
};

struct ParameterSet {
  Status status = 0;
  ByteView bytes;
  int nalHeaderLength = 0;  // bytes in front of each NAL unit of the samples
};

// How decoded values become colours: the code points of ISO/IEC 23091-2.
struct ColourDescription {
  std::uint16_t primaries = 0;
  std::uint16_t transfer = 0;
  std::uint16_t matrix = 0;
  bool fullRange = false;
};

// What a decoder must know before the first sample.
class FormatDescription {
 public:
  virtual ~FormatDescription() = default;
  // Index 0 is the sequence parameter set, 1 the picture parameter set.
  virtual ParameterSet parameterSet(std::size_t index) const = 0;
  virtual int width() const = 0;
  virtual int height() const = 0;
  virtual ColourDescription colour() const = 0;
};

// One encoded picture: NAL units, each behind its length as 4 big-endian bytes. Any thread.
class EncodedSample {
 public:
  virtual ~EncodedSample() = default;
  virtual bool dataIsReady() const = 0;
  virtual std::optional<std::size_t> dataLength() const = 0;
  virtual Status copyBytes(std::size_t offset, MutableByteView space) const = 0;
  virtual std::shared_ptr<const FormatDescription> format() const = 0;
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

class CompressionSession {
 public:
  // Called once per submitted frame, on the session's worker thread.
  using OutputHandler = std::function<void(Status status, std::uint32_t infoFlags,
                                           std::shared_ptr<const EncodedSample> sample)>;

  virtual ~CompressionSession() = default;
  virtual Status setProperty(SessionProperty property, const PropertyValue& value) = 0;
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
