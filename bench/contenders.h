#pragma once

// The tools that people use today for the helper's job, as shell commands: raw RGBA frames in, the
// bottom row first; a Baseline preview of 640×360 into a file and a High recording of the full size
// into an MP4 out. They have the helper's bit rates, buffers, key frames and threads.

#include <string>

#include <lumora/frame.h>

namespace lumora::bench {

struct Outputs {
  std::string preview = {};  // H.264 byte stream
  std::string take = {};     // MP4
};

// Each output is scaled and converted on its own, as most people write it.
std::string ffmpegCommand(client::FrameSize size, const std::string& preset,
                          const Outputs& outputs);
// Converted once, and the preview scaled from that: less work, but less common.
std::string ffmpegOnceCommand(client::FrameSize size, const std::string& preset,
                              const Outputs& outputs);
std::string gstreamerCommand(client::FrameSize size, const std::string& preset,
                             const Outputs& outputs);

}  // namespace lumora::bench
