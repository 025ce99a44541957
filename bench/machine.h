#pragma once

#include <nlohmann/json.hpp>

namespace lumora::bench {

// Where, when and with what figures are measured: texts by name.
nlohmann::json describeMachine();

}  // namespace lumora::bench
