#pragma once

namespace lumora::tests {

// A sanitizer makes everything slow and has a heap of its own.
#ifdef LUMORA_SANITIZED
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

}  // namespace lumora::tests
