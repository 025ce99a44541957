#pragma once

#include <string>

namespace lumora {

// Names the calling thread, for debuggers and `top`.
void nameThread(const std::string& name);

}  // namespace lumora
