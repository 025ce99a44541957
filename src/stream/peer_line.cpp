#include "stream/peer_line.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "base/json.h"
#include "base/limits.h"

namespace lumora {
namespace {

// Unsigned integers come through exactly; 9.0 counts as 9. Above 2^53 a number written with a
// fraction no longer names one integer, so it is refused.
std::optional<std::uint64_t> parseFrameID(const Json& value) {
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  if (!value.is_number_float()) return std::nullopt;
  const double number = value.get<double>();
  constexpr double largestExactInteger = 9007199254740992.0;
  if (!(number >= 0) || number > largestExactInteger || number != std::floor(number)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(number);
}

}  // namespace

PeerLine parsePeerLine(ByteView line) {
  if (line.empty() || line.size() > maximumLineBytes) return InvalidLine{};
  const auto message = parseJson(line);
  if (!message || !message->is_object()) return InvalidLine{};
  const std::string* type = findString(*message, "type");
  if (type == nullptr) return InvalidLine{};
  if (*type == "hello") {
    const std::string* token = findString(*message, "token");
    if (token == nullptr || token->size() > maximumTokenBytes) return InvalidLine{};
    return HelloLine{*token};
  }
  if (*type == "ack") {
    const Json* value = findValue(*message, "frame_id");
    const auto frameID = value == nullptr ? std::nullopt : parseFrameID(*value);
    if (!frameID) return InvalidLine{};
    return AckLine{*frameID};
  }
  return InvalidLine{};
}

bool constantTimeEqual(std::string_view first, std::string_view second) {
  std::size_t difference = first.size() ^ second.size();
  const std::size_t longest = std::max(first.size(), second.size());
  for (std::size_t i = 0; i < longest; ++i) {
    const auto a = static_cast<unsigned char>(i < first.size() ? first[i] : 0);
    const auto b = static_cast<unsigned char>(i < second.size() ? second[i] : 0);
    difference |= static_cast<std::size_t>(a ^ b);
  }
  return difference == 0;
}

}  // namespace lumora
