#pragma once

// Keeps freed memory in the C library's heap, so that its pages are mapped only once, at their
// first touch. A large encoder works with 60 MB, whose first touch takes as long as several frames.
// So we touch that much memory before an encoder needs it.
// Only glibc has settings for this. With another C library, freed memory is not kept.

#include <cstddef>
#include <cstdint>
#include <stop_token>

namespace lumora {

// From now on freed memory stays in the heap, and all threads share one heap. Call it before other
// threads start.
void keepFreedMemory();

// Touches `bytes` of free memory, or less if stopped or if memory is short. Pauses before each huge
// page, so that other threads are not disturbed. Any thread.
void touchMemoryAhead(std::size_t bytes, const std::stop_token& stop);

constexpr std::size_t hugePage = std::size_t{2} << 20;  // bytes

// Asks the system for a huge page wherever a whole one fits into these `bytes`. Call it before
// their first touch. Any thread.
void useHugePages(std::uint8_t* from, std::size_t bytes);

// Gives free memory back to the system. Any thread.
void trimHeap();

// Trims the heap if the process holds more memory than it will need. A series of takes of many
// sizes leaves free pieces that are too small for later takes. Any thread.
void trimHeapBeyondNeed();

}  // namespace lumora
