#pragma once

// Where a movie's bytes go. Every call may wait for the disk and answers 0 or an errno.

#include <memory>
#include <string>

#include "base/bytes.h"

namespace lumora {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Appends all of `bytes`.
  virtual int write(ByteView bytes) = 0;
  virtual int overwrite(std::uint64_t offset, ByteView bytes) = 0;
  // Returns once everything written is on the disk; ENOENT when the file has been removed.
  virtual int sync() = 0;
};

// A new file; null with `error` set to an errno when it exists or can't be made.
std::unique_ptr<ByteSink> createFile(const std::string& path, int& error);

// What an errno means, in words: "No space left on device".
std::string describeError(int error);

}  // namespace lumora
