#pragma once

// What happens when memory is short. `new` waits for it. If memory stays short, `new` throws:
// optional steps are then skipped, any other operation fails.

#include <exception>

namespace lumora {

// From now on `new` waits for memory for up to a second before it throws std::bad_alloc. Call it
// before other threads start.
void waitForMemory();

// Runs an optional step and swallows its exception.
template <typename Step>
void bestEffort(Step step) {
  try {
    step();
  } catch (const std::exception&) {  // the step is optional
  }
}

}  // namespace lumora
