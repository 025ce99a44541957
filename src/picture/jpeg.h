#pragma once

#include <memory>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

// Decodes the JPEG pictures of cameras with libjpeg. One thread at a time.
class JpegDecoder {
 public:
  // Rows of a picture that is decoded into are multiples of so many bytes.
  static constexpr std::int64_t alignment = 64;

  // Throws std::bad_alloc.
  JpegDecoder();
  ~JpegDecoder();
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  // Fills `picture` (i420). False unless `jpeg` decodes whole, has this size, and has chroma of
  // half the width and of the same or half the height. Standard Huffman tables may be missing, and
  // any bytes may follow. Throws std::bad_alloc.
  bool decode(ByteView jpeg, const Picture& picture);

 private:
  class Library;
  const std::unique_ptr<Library> library_;
};

}  // namespace lumora
