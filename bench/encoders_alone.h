#pragma once

// The least that the job can cost: only the encoders of the preview and of the take, fed with ready
// NV12 pictures. Both encode the same frame at once, and wait for each other before the next one.
// No pipe, no conversion, no network, no file.

#include <functional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "bench/camera_clip.h"
#include "platform/encoder_settings.h"

namespace lumora::bench {

struct EncoderLoad {
  EncoderSettings settings;
  std::string preset;    // empty: as shipped
  CameraClip& pictures;  // NV12, of the encoder's size
};

struct EncodersReport {
  double cpuSeconds = 0;
  double wallSeconds = 0;
  std::vector<Bytes> streams;  // Annex B, one for each load
};

// Encodes `frames` pictures of each load, at `framesPerSecond` or, if that is 0, as fast as
// possible. `besideEach` runs once a frame on a thread of its own. Throws std::runtime_error when
// libx264 can't be opened. A later error aborts the program.
EncodersReport encodeAlone(const std::vector<EncoderLoad>& loads, int frames,
                           int framesPerSecond = 0, const std::function<void()>& besideEach = {});

}  // namespace lumora::bench
