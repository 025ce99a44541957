#pragma once

// Two ways to deal with a machine that is short of memory, threads or descriptors, where nobody is
// there who could be told.

#include <chrono>
#include <exception>
#include <new>
#include <thread>

namespace lumora {

// For what must happen: does `step` again and again until there is memory for it. A step that threw
// std::bad_alloc has done nothing.
template <typename Step>
auto retryUntilAllocated(Step step) {
  for (;;) {
    try {
      return step();
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
}

// For what is only of advantage.
template <typename Step>
void bestEffort(Step step) {
  try {
    step();
  } catch (const std::exception&) {  // it goes without
  }
}

}  // namespace lumora
