#include "h264/nal_units.h"

#include <string_view>

namespace lumora {
namespace {

constexpr std::string_view startCode("\0\0\1", 3);

// A NAL unit never ends in a zero byte. Zeros after it are padding or part of the next start code.
ByteView withoutTrailingZeros(ByteView unit) {
  while (!unit.empty() && unit.back() == 0) unit = unit.first(unit.size() - 1);
  return unit;
}

}  // namespace

std::vector<ByteView> splitAnnexB(ByteView stream) {
  const std::string_view text(reinterpret_cast<const char*>(stream.data()), stream.size());
  std::vector<ByteView> units;
  std::size_t code = text.find(startCode);
  while (code != std::string_view::npos) {
    const std::size_t begin = code + startCode.size();
    code = text.find(startCode, begin);
    const std::size_t end = std::min(code, stream.size());
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
