#pragma once

// Encoded pictures and their formats.

#include <optional>

#include "base/bytes.h"

namespace lumora {

// The outcome of a platform call: 0 is success, anything else is the platform's own code.
using Status = std::int32_t;

struct ParameterSet {
  Status status = 0;
  ByteView bytes;
  std::size_t nalHeaderLength = 0;  // bytes in front of each NAL unit of the samples
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

// One encoded picture: NAL units, each preceded by its length in 4 big-endian bytes. Any thread.
class EncodedSample {
 public:
  virtual ~EncodedSample() = default;
  virtual bool dataIsReady() const = 0;
  virtual std::optional<std::size_t> dataLength() const = 0;
  virtual Status copyBytes(std::size_t offset, MutableByteView space) const = 0;
  virtual std::shared_ptr<const FormatDescription> format() const = 0;
};

}  // namespace lumora
