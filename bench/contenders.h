#pragma once

// The tools that people use today for the helper's job: raw RGBA in, upside down; a Baseline
// preview of 640×360 into a file and a High recording of the full size into an MP4 out. With the
// helper's bit rates, buffers, key frames and threads, and whatever preset is asked for.

#include <string>
#include <vector>

#include "client/records.h"

namespace lumora::bench {

struct Outputs {
  std::string preview;  // H.264 byte stream
  std::string take;     // MP4
};

// Each output is scaled and converted on its own, as one would write it down.
std::vector<std::string> ffmpegCommand(client::FrameSize size, const std::string& preset,
                                       const Outputs& outputs);
// Converted once, and the preview scaled from that: less work, less common.
std::vector<std::string> ffmpegOnceCommand(client::FrameSize size, const std::string& preset,
                                           const Outputs& outputs);
std::vector<std::string> gstreamerCommand(client::FrameSize size, const std::string& preset,
                                          const Outputs& outputs);

}  // namespace lumora::bench
