#include "system/posix_file_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "base/directory.h"
#include "base/out_of_memory.h"

namespace lumora {
namespace {

constexpr std::chrono::seconds longestRemoval{1};

// File systems without an atomic "rename unless it exists": a hard link refuses an existing name
// just as well; where there are none either, a look beforehand has to do.
bool moveWithoutRename2(const char* from, const char* to) {
  if (link(from, to) == 0) {
    unlink(from);  // should that fail it has two names, and this is one of them
    return true;
  }
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

// Removals that a disk holds up: a file of such a name would fall to them.
class PosixFileManager::PendingRemovals {
 public:
  void add(const std::string& path) {
    auto name = nameOf(path);
    const std::lock_guard hold(mutex_);
    names_.insert(std::move(name));
  }
  void remove(const std::string& path) {
    const auto name = nameOf(path);
    const std::lock_guard hold(mutex_);
    names_.erase(name);
  }
  bool contain(const std::string& path) const {
    const auto name = nameOf(path);
    const std::lock_guard hold(mutex_);
    return names_.contains(name);
  }

 private:
  // However it is spelt, links apart: to follow those would wait for the disk.
  static std::filesystem::path nameOf(const std::string& path) {
    return std::filesystem::path(path).lexically_normal();
  }

  mutable std::mutex mutex_;
  std::set<std::filesystem::path> names_;
};

PosixFileManager::PosixFileManager() : pending_(std::make_shared<PendingRemovals>()) {}

bool PosixFileManager::isNameUsed(const std::string& path) const {
  struct stat status {};
  return pending_->contain(path) || stat(path.c_str(), &status) == 0;
}

bool PosixFileManager::move(const std::string& from, const std::string& to) {
  if (!moveUnlessExists(from.c_str(), to.c_str())) return false;
  // It is there, whatever becomes of the wish to have it safe.
  bestEffort([&] { syncDirectory(std::filesystem::path(to).parent_path()); });
  return true;
}

// On a disk that hangs the removal does, too; what is to be said of it must not.
void PosixFileManager::remove(const std::string& path) {
  const auto unlinkNow = [](const std::string& name, PendingRemovals& pending) {
    unlink(name.c_str());
    pending.remove(name);
  };
  try {
    pending_->add(path);
    std::promise<void> removed;
    const std::future<void> done = removed.get_future();
    std::thread([unlinkNow, path, pending = pending_, removed = std::move(removed)]() mutable {
      unlinkNow(path, *pending);
      removed.set_value();
    }).detach();
    done.wait_for(longestRemoval);
  } catch (const std::exception&) {  // no thread, no memory: without a bound, then
    unlinkNow(path, *pending_);
  }
}

}  // namespace lumora
