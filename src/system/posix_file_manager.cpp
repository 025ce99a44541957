#include "system/posix_file_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>

namespace lumora {
namespace {

constexpr std::chrono::seconds longestRemoval{1};

// A new name is safe against power loss only once its directory has reached the disk.
void syncDirectoryOf(const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path();
  const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  fsync(descriptor);
  close(descriptor);
}

// File systems without an atomic "rename unless it exists": a hard link refuses an existing name
// just as well; where there are none either, a look beforehand has to do.
bool moveWithoutRename2(const char* from, const char* to) {
  if (link(from, to) == 0) return unlink(from) == 0;
  if (errno == EEXIST) return false;
  struct stat status {};
  return lstat(to, &status) != 0 && std::rename(from, to) == 0;
}

bool moveUnlessExists(const char* from, const char* to) {
#ifdef RENAME_NOREPLACE
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
#endif
  return moveWithoutRename2(from, to);
}

}  // namespace

bool PosixFileManager::exists(const std::string& path) const {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

bool PosixFileManager::move(const std::string& from, const std::string& to) {
  if (!moveUnlessExists(from.c_str(), to.c_str())) return false;
  syncDirectoryOf(to);
  return true;
}

// On a disk that hangs the removal does, too; what is to be said of it must not.
void PosixFileManager::remove(const std::string& path) {
  std::promise<void> removed;
  const std::future<void> done = removed.get_future();
  std::thread([path, removed = std::move(removed)]() mutable {
    unlink(path.c_str());
    removed.set_value();
  }).detach();
  done.wait_for(longestRemoval);
}

}  // namespace lumora
