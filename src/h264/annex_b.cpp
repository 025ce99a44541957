#include "h264/annex_b.h"

#include <cstring>
#include <limits>

#include "base/big_endian.h"

namespace lumora {
namespace {

constexpr std::size_t startCodeBytes = 3;
constexpr std::size_t nowhere = std::numeric_limits<std::size_t>::max();

// Where the next 00 00 01 begins at or behind `from`.
std::size_t findStartCode(ByteView stream, std::size_t from) {
  while (from + startCodeBytes <= stream.size()) {
    const void* one = std::memchr(stream.data() + from + 2, 1, stream.size() - from - 2);
    if (one == nullptr) return nowhere;
    const auto at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(one) - stream.data());
    if (stream[at - 1] == 0 && stream[at - 2] == 0) return at - 2;
    from = at - 1;
  }
  return nowhere;
}

// A NAL unit never ends in zero bytes: they belong to the next start code or are padding.
ByteView withoutTrailingZeros(ByteView unit) {
  while (!unit.empty() && unit.back() == 0) unit = unit.first(unit.size() - 1);
  return unit;
}

}  // namespace

std::vector<ByteView> splitAnnexB(ByteView stream) {
  std::vector<ByteView> units;
  std::size_t code = findStartCode(stream, 0);
  while (code != nowhere) {
    const std::size_t begin = code + startCodeBytes;
    code = findStartCode(stream, begin);
    const std::size_t end = code == nowhere ? stream.size() : code;
    const ByteView unit = withoutTrailingZeros(stream.subspan(begin, end - begin));
    if (!unit.empty()) units.push_back(unit);
  }
  return units;
}

void appendLengthPrefixed(Bytes& sample, ByteView unit) {
  appendBE(sample, static_cast<std::uint32_t>(unit.size()));
  sample.insert(sample.end(), unit.begin(), unit.end());
}

}  // namespace lumora
