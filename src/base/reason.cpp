#include "base/reason.h"

#include <new>
#include <system_error>

namespace lumora {

std::string reasonOf(const std::exception& error) {
  if (const auto* refused = dynamic_cast<const std::system_error*>(&error)) {
    return refused->code().message();
  }
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    return std::generic_category().message(ENOMEM);
  }
  return error.what();
}

}  // namespace lumora
