#pragma once

// Encoded samples and format descriptions that live in ordinary memory.

#include <utility>

#include "platform/sample.h"

namespace lumora {

class MemoryFormatDescription final : public FormatDescription {
 public:
  MemoryFormatDescription(Bytes sequence, Bytes picture, int width, int height,
                          ColourDescription colour);
  ParameterSet parameterSet(std::size_t index) const override;
  int width() const override { return width_; }
  int height() const override { return height_; }
  ColourDescription colour() const override { return colour_; }

 private:
  Bytes sets_[2];
  int width_;
  int height_;
  ColourDescription colour_;
};

class MemorySample final : public EncodedSample {
 public:
  MemorySample(Bytes data, std::shared_ptr<const FormatDescription> format)
      : data_(std::move(data)), format_(std::move(format)) {}
  bool dataIsReady() const override { return true; }
  std::optional<std::size_t> dataLength() const override { return data_.size(); }
  Status copyBytes(std::size_t offset, MutableByteView space) const override;
  std::shared_ptr<const FormatDescription> format() const override { return format_; }

 private:
  Bytes data_;
  std::shared_ptr<const FormatDescription> format_;
};

}  // namespace lumora
