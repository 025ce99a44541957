#include "h264/memory_sample.h"

#include "h264/nal_units.h"

#include <algorithm>
#include <cerrno>

namespace lumora {

MemoryFormatDescription::MemoryFormatDescription(Bytes sequence, Bytes picture, int width,
                                                 int height, ColourDescription colour)
    : sets_{std::move(sequence), std::move(picture)},
      width_(width),
      height_(height),
      colour_(colour) {}

ParameterSet MemoryFormatDescription::parameterSet(std::size_t index) const {
  if (index >= std::size(sets_)) return {-EINVAL, {}, 0};
  return {0, sets_[index], nalLengthBytes};
}

Status MemorySample::copyBytes(std::size_t offset, MutableByteView space) const {
  if (offset > data_.size() || space.size() > data_.size() - offset) return -EINVAL;
  std::copy_n(data_.data() + offset, space.size(), space.data());
  return 0;
}

}  // namespace lumora
