#pragma once

// The format of the parent's frames. TAVO_FRAME_FORMAT sets it for the whole run. Pure.

#include <optional>
#include <string>

#include "platform/frame_decoder.h"

namespace lumora {

struct FrameFormat {
  FrameEncoding encoding = FrameEncoding::rgba;
  bool topFirst = false;
  // The format of the picture that encoder sessions get. If sessions take `encoding`, they get
  // the picture in the record. Otherwise they get the decoded picture.
  PixelFormat pixels = {};

  bool operator==(const FrameFormat&) const = default;
};

// Parses a list of words that describes a format, for example "nv12,top,bt709,limited". Empty if
// `text` is not such a list.
std::optional<FrameFormat> parseFrameFormat(const std::string& text);

// Whether the picture has to be decoded or unpacked before a session takes it.
bool needsDecoding(FrameEncoding encoding);

// Whether the length of a picture varies.
bool isCompressed(FrameEncoding encoding);

// Bytes of a picture whose length does not vary.
std::uint64_t uncompressedBytes(FrameEncoding encoding, PictureSize size);

// Bytes of a reference to a picture in shared memory.
std::uint64_t referenceBytes(FrameEncoding encoding);

// Whether a picture of this size may be `bytes` long.
bool isPictureLength(FrameEncoding encoding, PictureSize size, std::uint64_t bytes);

}  // namespace lumora
