#pragma once

#include <deque>
#include <memory>

#include "platform/image.h"
#include "platform/resampler.h"

namespace lumora {

// libyuv where the sizes are equal, our own resampler where they differ. Keeps the resamplers of
// the last few size pairs, since preview and recording alternate.
class SystemImageConverter final : public ImageConverter {
 public:
  bool convert(const ImageView& source, const MutableImageView& destination) override;

 private:
  Resampler& resamplerFor(const ImageView& source, const MutableImageView& destination);

  std::deque<std::unique_ptr<Resampler>> resamplers_;  // most recent pairs last
};

}  // namespace lumora
