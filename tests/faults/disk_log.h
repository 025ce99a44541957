#pragma once

#include <cstdint>

namespace lumora::tests {

// One call for the logged folder or its only file, or a call of any kind that was made to fail or
// wait. The entry of a write is followed by the `size` bytes that were written.
struct DiskLogEntry {
  enum Kind : std::uint64_t { written, synced, namesSynced, renamed, truncated, failed };
  Kind kind;
  std::uint64_t offset;  // of a write; the new size of a truncated file
  std::uint64_t size;
};

}  // namespace lumora::tests
