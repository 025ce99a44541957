#pragma once

// Where a movie's bytes go. Every call may wait for the disk and answers 0 or an errno.

#include <memory>
#include <string>

#include "base/bytes.h"

namespace lumora {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Sets room aside for the next `bytes` to be written, where the file system can: what lies within
  // it can be written however full the disk gets.
  virtual int reserve(std::uint64_t bytes) = 0;
  // Gives back what was set aside and not written.
  virtual void releaseRoom() = 0;
  // Appends all of `bytes`.
  virtual int write(ByteView bytes) = 0;
  virtual int overwrite(std::uint64_t offset, ByteView bytes) = 0;
  // Returns once everything written and the file's name are on the disk; ENOENT when it has been
  // removed.
  virtual int sync() = 0;
};

// A new file; null with `error` set to an errno when it exists or can't be made.
std::unique_ptr<ByteSink> createFile(const std::string& path, int& error);

// What an errno means, in words: "No space left on device".
std::string describeError(int error);

}  // namespace lumora
