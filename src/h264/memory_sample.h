#pragma once

// Encoded samples and format descriptions that own their bytes. Any thread.

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "h264/nal_units.h"
#include "platform/sample.h"

namespace lumora {

class MemoryFormatDescription final : public FormatDescription {
 public:
  MemoryFormatDescription(Bytes sequence, Bytes picture, int width, int height,
                          ColourDescription colour)
      : sets_{std::move(sequence), std::move(picture)},
        width_(width),
        height_(height),
        colour_(colour) {}
  ParameterSet parameterSet(std::size_t index) const override {
    if (index >= sets_.size()) return {-EINVAL, {}, 0};
    return {0, sets_[index], nalLengthBytes};
  }
  int width() const override { return width_; }
  int height() const override { return height_; }
  ColourDescription colour() const override { return colour_; }

 private:
  std::array<Bytes, 2> sets_;
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
  Status copyBytes(std::size_t offset, MutableByteView space) const override {
    if (offset > data_.size() || space.size() > data_.size() - offset) return -EINVAL;
    std::copy_n(data_.data() + offset, space.size(), space.data());
    return 0;
  }
  std::shared_ptr<const FormatDescription> format() const override { return format_; }

 private:
  Bytes data_;
  std::shared_ptr<const FormatDescription> format_;
};

}  // namespace lumora
