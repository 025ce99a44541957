#include "base/text.h"

#include <cerrno>
#include <new>
#include <system_error>

namespace lumora {

std::string firstCharacters(const std::string& text, std::size_t count) {
  std::size_t end = 0;
  for (std::size_t taken = 0; end < text.size(); ++end) {
    const bool continuesCharacter = (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80;
    if (continuesCharacter) continue;
    if (taken++ == count) break;
  }
  return text.substr(0, end);
}

std::string reasonOf(const std::exception& error) {
  if (const auto* refused = dynamic_cast<const std::system_error*>(&error)) {
    return refused->code().message();
  }
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return reasonOf(ENOMEM);
  return error.what();
}

std::string reasonOf(int error) { return std::generic_category().message(error); }

}  // namespace lumora
