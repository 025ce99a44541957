#pragma once

#include <deque>
#include <memory>

#include "picture/resampler.h"
#include "picture/second_thread.h"
#include "platform/image.h"

namespace lumora {

// libyuv where the sizes are equal, our own resampler where they differ, on two threads: only one
// session can be encoding while a picture is converted for the other, and every millisecond of it
// counts as latency. Keeps the resamplers of the last few size pairs, since preview and recording
// alternate.
class SystemImageConverter final : public ImageConverter {
 public:
  bool convert(const ImageView& source, const MutableImageView& destination) override;

 private:
  void resample(const ImageView& source, const MutableImageView& destination);
  const Resampler& resamplerFor(const ImageView& source, const MutableImageView& destination);

  std::deque<std::unique_ptr<Resampler>> resamplers_;  // the latest made last
  Resampler::Workspace upper_;
  Resampler::Workspace lower_;
  std::unique_ptr<SecondThread> secondThread_;  // from the first large picture on
};

}  // namespace lumora
