#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <lumora/export.h>

namespace lumora::client {

// Pixels, both even. The longer side of a frame is at most 1920, the shorter at most 1080.
struct FrameSize {
  int width = 0;
  int height = 0;
  std::size_t rgbaBytes() const {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  }
  bool operator==(const FrameSize&) const = default;
};

// `nv12`, `nv21` and `i420` are 4:2:0. Their planes follow each other. `yuyv` and `uyvy` are packed
// 4:2:2. An `mjpeg` frame is one JPEG picture of the frame's size, 4:2:0 or 4:2:2.
enum class FrameEncoding { rgba, bgra, rgb24, bgr24, nv12, nv21, i420, yuyv, uyvy, mjpeg };
enum class FirstRow { top, bottom };
enum class ColourMatrix { bt601, bt709 };
enum class ColourRange { limited, full };

// How the pictures of a run lie in memory, and what their samples mean.
struct LUMORA_CLIENT_EXPORT FrameFormat {
  FrameEncoding encoding = FrameEncoding::rgba;
  std::optional<FirstRow> firstRow = {};    // empty: bottom for rgba and bgra, top for all others
  std::optional<ColourMatrix> matrix = {};  // not for RGB and JPEG; empty: bt601
  std::optional<ColourRange> range = {};    // not for RGB and JPEG; empty: limited

  bool operator==(const FrameFormat&) const = default;

  // The value of TAVO_FRAME_FORMAT.
  std::string text() const;
  // The bytes of a picture without padding. For mjpeg, the most that a picture may have.
  std::size_t bytes(FrameSize size) const;
};

}  // namespace lumora::client
