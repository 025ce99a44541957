#pragma once

#include <charconv>
#include <string_view>

namespace lumora::tools {

// Parses the whole of `text` into `number`. False when it is no number of this type.
template <typename Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

}  // namespace lumora::tools
