#pragma once

#include <memory>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

// Uses libjpeg to decode the JPEG pictures of cameras. One thread at a time.
class JpegDecoder {
 public:
  JpegDecoder();
  ~JpegDecoder();
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  // Fills `picture`, which is i420 with rows aligned to `rowAlignment`. False unless `jpeg` decodes
  // completely, is YCbCr, and has the size of `picture`. The chroma of `jpeg` must have half the
  // columns, and all or half of the rows. Standard Huffman tables may be missing, and any bytes may
  // follow the end of the JPEG. Chroma is not moved: JPEG has it midway between two columns, H.264
  // at the left one. Throws std::bad_alloc.
  bool decode(ByteView jpeg, const Picture& picture);

 private:
  class Library;
  const std::unique_ptr<Library> library_;
  Bytes spare_;   // for rows below the picture
  Bytes chroma_;  // of a 4:2:2 picture, with all rows
};

}  // namespace lumora
