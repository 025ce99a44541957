#pragma once

#include <cstdint>

namespace lumora::tests {

// One call on the logged folder or on a file in it, any rename, or a call of any kind that was made
// to fail or wait. An entry does not name the file, so the folder should have only one. The entry
// of a write is followed by the `size` bytes that were written.
struct DiskLogEntry {
  enum Kind : std::uint64_t { written, synced, namesSynced, renamed, truncated, failed };
  Kind kind;
  std::uint64_t offset;  // of a write; the new size of a truncated file
  std::uint64_t size;
};

}  // namespace lumora::tests
