#include "picture/system_image_converter.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>

namespace lumora {
namespace {

constexpr std::size_t keptResamplers = 4;
// Beyond this a kernel's weights are too small for the resampler's fixed point.
constexpr std::int64_t largestReduction = 8;
constexpr std::int64_t bytesPerPixel = 4;

}  // namespace

bool SystemImageConverter::convert(const ImageView& source, const MutableImageView& destination) {
  if (source.width == destination.width && source.height == destination.height) {
    // libyuv names formats by the little-endian word: its ABGR is R, G, B, A in memory. A negative
    // height turns the picture upside down.
    return libyuv::ABGRToARGB(source.pixels, static_cast<int>(source.stride), destination.pixels,
                              static_cast<int>(destination.stride), static_cast<int>(source.width),
                              -static_cast<int>(source.height)) == 0;
  }
  if (source.width > destination.width * largestReduction ||
      source.height > destination.height * largestReduction) {
    return resampleTwice(source, destination);
  }
  resamplerFor(source, destination).run(source, destination);
  return true;
}

// Goes through a picture between the two sizes. Each of the two passes swaps channels and flips. So
// the second one reads that picture from its last row up, and the channels are swapped a third
// time.
bool SystemImageConverter::resampleTwice(const ImageView& source,
                                         const MutableImageView& destination) {
  const auto between = [](std::int64_t from, std::int64_t to) {
    return std::llround(std::sqrt(static_cast<double>(from) * static_cast<double>(to)));
  };
  const std::int64_t width = between(source.width, destination.width);
  const std::int64_t height = between(source.height, destination.height);
  const std::int64_t stride = width * bytesPerPixel;
  halfway_.resize(static_cast<std::size_t>(height * stride));
  const MutableImageView halfway{halfway_.data(), width, height, stride};
  resamplerFor(source, halfway).run(source, halfway);
  const ImageView upright{halfway.pixels + (height - 1) * stride, width, height, -stride};
  resamplerFor(upright, destination).run(upright, destination);
  return libyuv::ABGRToARGB(destination.pixels, static_cast<int>(destination.stride),
                            destination.pixels, static_cast<int>(destination.stride),
                            static_cast<int>(destination.width),
                            static_cast<int>(destination.height)) == 0;
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
