#pragma once

#include <cstdint>

namespace lumora::tests {

// One call for the only file of a folder, or a call of any kind that had to fail. An entry for a
// write is followed by its `size` bytes.
struct DiskLogEntry {
  enum Kind : std::uint64_t { written, synced, namesSynced, renamed, truncated, failed };
  Kind kind;
  std::uint64_t offset;  // of a write; the new size of a truncated file
  std::uint64_t size;
};

}  // namespace lumora::tests
