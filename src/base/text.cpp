#include "base/text.h"

#include <cerrno>
#include <new>
#include <system_error>

namespace lumora {
namespace {

constexpr const char* noMemory = "no memory";  // short enough for a string without an allocation

}  // namespace

std::string firstCharacters(const std::string& text, std::size_t count) {
  std::size_t end = 0;
  for (std::size_t taken = 0; end < text.size(); ++end) {
    const bool continuesCharacter = (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80;
    if (continuesCharacter) continue;
    if (taken++ == count) break;
  }
  return text.substr(0, end);
}

std::string reasonOf(const std::exception& error) try {
  if (const auto* refused = dynamic_cast<const std::system_error*>(&error)) {
    return refused->code().message();
  }
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return reasonOf(ENOMEM);
  return error.what();
} catch (const std::bad_alloc&) {
  return noMemory;
}

std::string reasonOf(int error) try {
  return std::generic_category().message(error);
} catch (const std::bad_alloc&) {
  return noMemory;
}

}  // namespace lumora
