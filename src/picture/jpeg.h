#pragma once

#include <memory>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

// Decodes the JPEG pictures of cameras with libjpeg. One thread at a time.
class JpegDecoder {
 public:
  JpegDecoder();
  ~JpegDecoder();
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  // Fills `picture`, which is i420 with rows aligned to `rowAlignment`. False unless `jpeg` decodes
  // completely, has this size, and has chroma of half the width and of the same or half the height.
  // Standard Huffman tables may be missing, and any bytes may follow. Chroma is not moved: JPEG has
  // it midway between two columns, H.264 at the left one. Throws std::bad_alloc.
  bool decode(ByteView jpeg, const Picture& picture);

 private:
  class Library;
  const std::unique_ptr<Library> library_;
  Bytes spare_;   // for rows below the picture
  Bytes chroma_;  // of 4:2:2
};

}  // namespace lumora
