#pragma once

#include <cstdint>

namespace lumora::tests {

// One call: a write, sync or truncation of a file in the logged folder, a sync of the folder, or a
// rename in any folder. `failed` stands for a call of any kind that the fault library delayed, or
// that it made fail. An entry does not name the file, so the folder should have only one file. The
// entry of a write is followed by the `size` bytes that were written.
struct DiskLogEntry {
  enum Kind : std::uint64_t { written, synced, namesSynced, renamed, truncated, failed };
  Kind kind;
  std::uint64_t offset;  // of a write; the new size of a truncated file
  std::uint64_t size;
};

}  // namespace lumora::tests
