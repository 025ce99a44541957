#pragma once

// The lower bound of the whole job: the preview's and the recording's encoder, fed with ready 4:2:0
// pictures, both at once, one frame in flight. No pipe, no conversion, no network, no file.

#include <functional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "bench/camera_clip.h"
#include "platform/encoder_settings.h"

namespace lumora::bench {

// The clip's pictures as an encoder takes them: upright, scaled to fit, I420.
std::vector<Bytes> readyPictures(const CameraClip& clip, int width, int height);

struct EncoderLoad {
  EncoderSettings settings;
  std::string preset;  // empty: as shipped
  const std::vector<Bytes>& pictures;
};

struct EncodersReport {
  double cpuSeconds = 0;
  double wallSeconds = 0;
  std::vector<Bytes> streams;  // Annex B, one for each load
};

// Encodes at a rate or (0) as fast as it goes; `besideEach` runs once a frame on a thread of its
// own. Throws std::runtime_error when an encoder can't be opened.
EncodersReport encodeAlone(const std::vector<EncoderLoad>& loads, int frames,
                           int framesPerSecond = 0, const std::function<void()>& besideEach = {});

}  // namespace lumora::bench
