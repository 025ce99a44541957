#pragma once

// The C library's heap as a place where memory that was touched once stays at hand. The first touch
// of the 60 MB that a large encoder works with takes several frames' time, so it is done ahead.
// Where the C library has no such settings these do what they can.

#include <cstddef>
#include <cstdint>
#include <stop_token>

namespace lumora {

// From now on freed memory stays in the heap, and all threads share one. Before other threads
// start.
void keepFreedMemory();

// Has `bytes` of free memory touched, or less when stopped; it stays so where freed memory is kept.
// Takes many times as long as it must, to disturb nobody. Any thread.
void touchMemoryAhead(std::size_t bytes, const std::stop_token& stop);

constexpr std::size_t hugePage = std::size_t{2} << 20;  // bytes

// Asks for huge pages where whole ones lie in these `bytes`, before their first touch. Any thread.
void useHugePages(std::uint8_t* from, std::size_t bytes);

// Gives free memory back to the system. Any thread.
void trimHeap();

// The same, where the process holds more than it will need: takes of many sizes, one after the
// other, leave free memory in pieces that none of the next ones fits into.
void trimHeapBeyondNeed();

}  // namespace lumora
