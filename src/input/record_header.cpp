#include "input/record_header.h"

#include <algorithm>

#include "base/big_endian.h"
#include "base/limits.h"
#include "platform/frame_memory.h"

namespace lumora {
namespace {

constexpr int minimumSide = 2;
constexpr int maximumLongSide = 1920;
constexpr int maximumShortSide = 1080;

bool isValidSide(int side) {
  return side >= minimumSide && side <= maximumLongSide && side % 2 == 0;
}

}  // namespace

RecordHeader decodeRecordHeader(ByteView bytes) {
  return {.length = integerBE<std::uint32_t>(bytes, 0),
          .width = integerBE<std::uint16_t>(bytes, 4),
          .height = integerBE<std::uint16_t>(bytes, 6),
          .id = integerBE<std::uint64_t>(bytes, 8)};
}

bool isValidFrame(const RecordHeader& header, std::uint64_t lastID) {
  if (!isValidSide(header.width) || !isValidSide(header.height)) return false;
  if (std::min(header.width, header.height) > maximumShortSide) return false;
  if (std::int64_t{header.width} * header.height > maximumRawPixels) return false;
  return header.id > lastID;
}

bool isValidOffset(std::uint64_t offset, std::uint64_t bytes, std::uint64_t memoryBytes) {
  if (offset == 0 || offset % framePageBytes != 0) return false;
  return bytes <= memoryBytes && offset <= memoryBytes - bytes;
}

bool isValidCommand(const RecordHeader& header) {
  return header.length >= 1 && header.length <= maximumLineBytes;
}

}  // namespace lumora
