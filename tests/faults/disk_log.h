#pragma once

#include <cstdint>

namespace lumora::tests {

// What happened to the one file of a folder; behind a write stand its `size` bytes.
struct DiskLogEntry {
  enum Kind : std::uint64_t { created, written, synced, namesSynced, renamed, truncated };
  Kind kind;
  std::uint64_t offset;  // of a write; the size, if truncated
  std::uint64_t size;
};

}  // namespace lumora::tests
