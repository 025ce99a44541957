#pragma once

// What happens when memory is short: `new` waits for it, optional steps are skipped, and where
// neither helps the exception ends what was being done.

#include <exception>

namespace lumora {

// From now on `new` waits for memory before it throws std::bad_alloc: up to a second in each
// shortage, on the thread that is short. Before other threads start.
void waitForMemory();

// Runs an optional step and swallows its exception.
template <typename Step>
void bestEffort(Step step) {
  try {
    step();
  } catch (const std::exception&) {  // we do without it
  }
}

}  // namespace lumora
