#pragma once

#include <exception>
#include <string>

namespace lumora {

// What went wrong in the system's own words where they say it: "Too many open files".
std::string reasonOf(const std::exception& error);

}  // namespace lumora
