#include "sound/sound_format.h"

#include <charconv>
#include <string_view>

namespace lumora {
namespace {

constexpr int lowestRate = 8000;
constexpr int highestRate = 96000;

}  // namespace

std::optional<SoundFormat> parseSoundFormat(const std::string& text) {
  const char* const last = text.data() + text.size();
  int rate = 0;
  const auto [end, error] = std::from_chars(text.data(), last, rate);
  if (error != std::errc{} || text.starts_with('0')) return std::nullopt;
  if (rate < lowestRate || rate > highestRate) return std::nullopt;
  const std::string_view rest(end, last);
  if (rest != "x1" && rest != "x2") return std::nullopt;
  return SoundFormat{rate, rest == "x1" ? 1 : 2};
}

}  // namespace lumora
