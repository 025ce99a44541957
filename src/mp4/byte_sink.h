#pragma once

// Where a movie's bytes go. Any call may wait for the disk. An `int` result is 0 or an errno.

#include <memory>
#include <optional>
#include <string>

#include "base/bytes.h"

namespace lumora {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Reserves room on the disk for the next `bytes` to be written, if the file system can. They then
  // fit even if the disk gets full.
  virtual int reserve(std::uint64_t bytes) = 0;
  // Frees the room that was reserved and not written.
  virtual void releaseRoom() = 0;
  // Appends all of `bytes`.
  virtual int write(ByteView bytes) = 0;
  virtual int overwrite(std::uint64_t offset, ByteView bytes) = 0;
  // Returns once the file's name and all bytes written so far are on the disk. ENOENT if the file
  // was removed.
  virtual int sync() = 0;
  // The size of the file in bytes.
  virtual std::uint64_t size() const = 0;
  // Bytes that the file system has left. Empty if the file system does not say.
  virtual std::optional<std::uint64_t> freeBytes() const = 0;
};

// A new file at `path`. Null, with `error` set to an errno, if `path` exists or can't be made.
// The file is locked while it is open, if the file system has locks (see `lockFile`). Throws
// std::system_error if somebody else keeps it locked for a second.
std::unique_ptr<ByteSink> createFile(const std::string& path, int& error);
// A sink that appends to the open file at `path`, which has `size` bytes. The sink owns
// `descriptor`.
std::unique_ptr<ByteSink> appendTo(int descriptor, std::uint64_t size, const std::string& path);

// Locks a file until it is closed. Returns 0, EAGAIN if somebody else has locked it, or another
// errno if the file system has no locks. Does not wait for another lock to end.
int lockFile(int descriptor);

}  // namespace lumora
