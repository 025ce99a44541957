#include "picture/system_image_converter.h"

#include <libyuv.h>

#include <algorithm>

#include "picture/box_reduction.h"

namespace lumora {
namespace {

constexpr std::size_t keptResamplers = 4;

bool isUsable(std::int64_t width, std::int64_t height, const void* pixels) {
  return pixels != nullptr && width > 0 && height > 0 && width <= Resampler::maximumSide &&
         height <= Resampler::maximumSide;
}

}  // namespace

bool SystemImageConverter::convert(const ImageView& source, const MutableImageView& destination) {
  if (!isUsable(source.width, source.height, source.pixels) ||
      !isUsable(destination.width, destination.height, destination.pixels)) {
    return false;
  }
  if (source.width == destination.width && source.height == destination.height) {
    // libyuv names formats by the little-endian word: its ABGR is R, G, B, A in memory. A negative
    // height turns the picture over.
    return libyuv::ABGRToARGB(source.pixels, static_cast<int>(source.stride), destination.pixels,
                              static_cast<int>(destination.stride), static_cast<int>(source.width),
                              -static_cast<int>(source.height)) == 0;
  }
  if (isStrongReduction(source, destination)) {
    averageBoxes(source, destination);
    return true;
  }
  resamplerFor(source, destination).run(source, destination, workspace_);
  return true;
}

const Resampler& SystemImageConverter::resamplerFor(const ImageView& source,
                                                    const MutableImageView& destination) {
  const auto found = std::ranges::find_if(
      resamplers_, [&](const auto& kept) { return kept->matches(source, destination); });
  if (found != resamplers_.end()) return **found;
  if (resamplers_.size() == keptResamplers) resamplers_.pop_front();
  resamplers_.push_back(std::make_unique<Resampler>(source, destination));
  return *resamplers_.back();
}

}  // namespace lumora
