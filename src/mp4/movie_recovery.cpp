#include "mp4/movie_recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "base/directory.h"
#include "base/movie_names.h"
#include "base/text.h"
#include "mp4/byte_sink.h"
#include "mp4/movie_boxes.h"
#include "mp4/staging_movie.h"

namespace lumora {
namespace {

constexpr std::time_t quietSeconds = 60;

void expectSuccess(int error) {
  if (error != 0) throw std::system_error(error, std::generic_category());
}

// A staging file that this object keeps open and locked. The constructor throws std::runtime_error
// if that is impossible, or if the recording into the file may still be running.
class OwnedFile {
 public:
  OwnedFile(const std::string& path, std::time_t now)
      : descriptor_(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    if (descriptor_ < 0) expectSuccess(errno);
    try {
      own(path, now);
    } catch (...) {
      close(descriptor_);
      throw;
    }
  }
  ~OwnedFile() { close(descriptor_); }
  OwnedFile(const OwnedFile&) = delete;
  OwnedFile& operator=(const OwnedFile&) = delete;

  FileView view() const {
    return {size_, [this](std::uint64_t offset, MutableByteView space) {
              while (!space.empty()) {
                const ssize_t count =
                    pread(descriptor_, space.data(), space.size(), static_cast<off_t>(offset));
                if (count < 0 && errno == EINTR) continue;
                if (count <= 0) expectSuccess(count < 0 ? errno : EIO);
                space = space.subspan(static_cast<std::size_t>(count));
                offset += static_cast<std::uint64_t>(count);
              }
            }};
  }

  // A sink that appends to the file.
  std::unique_ptr<ByteSink> append(const std::string& path) const {
    const int copy = fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) expectSuccess(errno);
    return appendTo(copy, size_, path);
  }

 private:
  void own(const std::string& path, std::time_t now) {
    const int error = lockFile(descriptor_);
    if (error == EAGAIN) throw std::runtime_error("it is still being recorded");
    if (error != 0) {
      throw std::runtime_error("its recording may still be running: its file system has no locks");
    }
    struct stat file {};
    struct stat named {};
    if (fstat(descriptor_, &file) != 0 || stat(path.c_str(), &named) != 0) expectSuccess(errno);
    if (!S_ISREG(file.st_mode) || file.st_ino != named.st_ino || file.st_dev != named.st_dev) {
      throw std::runtime_error("it is not a regular file, or another file has its name by now");
    }
    // Helpers of version 0.1 take no lock.
    if (std::abs(now - file.st_mtime) < quietSeconds) {
      throw std::runtime_error(
          "its recording may still be running: it changed less than a minute ago");
    }
    size_ = static_cast<std::uint64_t>(file.st_size);
  }

  int descriptor_;
  std::uint64_t size_ = 0;
};

// The same steps as at the usual end of a take: the tables are on the disk before the head changes.
// The header that replaces the placeholder makes one `mdat` of everything from there up to the
// tables.
void finish(const OwnedFile& file, const std::string& path, const StagingMovie& movie) {
  const Bytes tables = movieEnd(movie.tracks, movie.properties);
  const auto sink = file.append(path);
  expectSuccess(sink->reserve(tables.size()));
  expectSuccess(sink->write(tables));
  expectSuccess(sink->sync());
  const std::uint64_t covered = file.view().size - movie.placeholder;
  expectSuccess(sink->overwrite(movie.placeholder, wideMediaDataHeader(covered)));
  expectSuccess(sink->sync());
  sink->releaseRoom();  // also frees the room that the interrupted helper had reserved
}

}  // namespace

std::vector<std::string> findStagingFiles(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (recoveryPathOf(entry.path())) found.push_back(entry.path());
  }
  std::ranges::sort(found);
  return found;
}

RecoveredTake recoverTake(const std::string& staging, std::time_t now) {
  RecoveredTake take{.staging = staging};
  try {
    const auto recovered = recoveryPathOf(staging);
    if (!recovered) throw std::runtime_error("its name is not that of an interrupted take");
    const OwnedFile file(staging, now);
    const StagingMovie movie = readStagingMovie(file.view());
    if (!movie.isFinished) finish(file, staging, movie);
    take.path = staging;
    take.frames = movie.frames;
    take.duration = movie.duration;
    if (!moveUnlessExists(staging, *recovered)) {
      throw std::runtime_error("it is a movie now, but can't be named " + *recovered);
    }
    take.path = *recovered;
    moveUnlessExists(frameLogPath(staging), frameLogPath(*recovered));  // few takes have one
    expectSuccess(syncDirectory(std::filesystem::path(*recovered).parent_path()));
  } catch (const std::exception& error) {
    // A movie that has its new name is fine even if the name can't be synced.
    if (take.path.empty() || take.path == staging) take.left = reasonOf(error);
  }
  return take;
}

}  // namespace lumora
