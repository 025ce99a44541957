#include "mp4/byte_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "base/directory.h"

namespace lumora {
namespace {

class PosixFile final : public ByteSink {
 public:
  PosixFile(int descriptor, std::uint64_t size, std::string directory)
      : descriptor_(descriptor), directory_(std::move(directory)), written_(size) {}
  ~PosixFile() override { close(descriptor_); }
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;

  int reserve(std::uint64_t bytes) override {
    if (!reserves_) return 0;
    int status = 0;
    do {
      status = fallocate(descriptor_, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(written_),
                         static_cast<off_t>(bytes));
    } while (status != 0 && errno == EINTR);
    if (status == 0) return 0;
    // These errors are reported now, before a write fails. The movie can still be completed in the
    // room that earlier calls have reserved.
    if (errno == ENOSPC || errno == EDQUOT || errno == EFBIG || errno == EIO) return errno;
    reserves_ = false;  // this file system can't
    return 0;
  }

  // Truncating a file to its own size frees the room reserved beyond its end.
  void releaseRoom() override {
    if (reserves_) static_cast<void>(ftruncate(descriptor_, static_cast<off_t>(written_)) == 0);
  }

  int write(ByteView bytes) override {
    return all(bytes, [this](ByteView rest, std::size_t) {
      const ssize_t count = ::write(descriptor_, rest.data(), rest.size());
      if (count > 0) written_ += static_cast<std::uint64_t>(count);
      return count;
    });
  }

  int overwrite(std::uint64_t offset, ByteView bytes) override {
    return all(bytes, [this, offset](ByteView rest, std::size_t done) {
      return ::pwrite(descriptor_, rest.data(), rest.size(), static_cast<off_t>(offset + done));
    });
  }

  int sync() override {
    if (fdatasync(descriptor_) != 0) return errno;
    if (!nameSynced_) {
      if (const int error = syncDirectory(directory_); error != 0) return error;
      nameSynced_ = true;
    }
    return named_ && linkCount() == 0 ? ENOENT : 0;
  }

  std::uint64_t size() const override { return written_; }

  std::optional<std::uint64_t> freeBytes() const override {
    struct statvfs system {};
    // Some file systems have no figures, and answer with zeros.
    if (fstatvfs(descriptor_, &system) != 0 || system.f_blocks == 0) return std::nullopt;
    return std::uint64_t{system.f_bavail} * system.f_frsize;
  }

 private:
  template <typename Put>
  static int all(ByteView bytes, Put put) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t count = put(bytes.subspan(done), done);
      if (count > 0)
        done += static_cast<std::size_t>(count);
      else if (count == 0)
        return ENOSPC;
      else if (errno != EINTR)
        return errno;
    }
    return 0;
  }

  nlink_t linkCount() const {
    struct stat status {};
    return fstat(descriptor_, &status) == 0 ? status.st_nlink : 0;
  }

  int descriptor_;
  std::string directory_;
  std::uint64_t written_;  // bytes
  bool reserves_ = true;
  bool nameSynced_ = false;
  // Whether the file system counts the names of a file. If so, a count of 0 means that the file was
  // removed. Its bytes are then lost when it is closed.
  bool named_ = linkCount() > 0;
};

// Tries for a second, because a recovery that finds the new file locks it for a moment.
void lockNewFile(int descriptor) {
  for (int tries = 0; lockFile(descriptor) == EAGAIN; ++tries) {
    if (tries == 100) throw std::system_error(EAGAIN, std::generic_category());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

std::unique_ptr<ByteSink> createFile(const std::string& path, int& error) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    error = errno;
    return nullptr;
  }
  try {
    lockNewFile(descriptor);
    return std::make_unique<PosixFile>(descriptor, 0, std::filesystem::path(path).parent_path());
  } catch (const std::exception&) {
    close(descriptor);
    unlink(path.c_str());
    throw;
  }
}

std::unique_ptr<ByteSink> appendTo(int descriptor, std::uint64_t size, const std::string& path) {
  lseek(descriptor, static_cast<off_t>(size), SEEK_SET);
  try {
    return std::make_unique<PosixFile>(descriptor, size, std::filesystem::path(path).parent_path());
  } catch (const std::exception&) {
    close(descriptor);
    throw;
  }
}

// The lock belongs to this opening of the file. It ends when the last descriptor of this opening is
// closed, even by a crash. (An F_SETLK lock belongs to the process and would end too early: as soon
// as the process closes any descriptor of the file.) On network file systems players can't read a
// locked byte, so the locked byte lies beyond the end of every movie.
int lockFile(int descriptor) {
  struct flock range {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = off_t{1} << 62;
  range.l_len = 1;
  if (fcntl(descriptor, F_OFD_SETLK, &range) == 0) return 0;
  return errno == EACCES ? EAGAIN : errno;
}

}  // namespace lumora
