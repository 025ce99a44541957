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

#include "base/directory.h"
#include "base/out_of_memory.h"
#include "base/thread.h"

namespace lumora {
namespace {

constexpr std::chrono::seconds longestRemoval{1};

// For file systems that can't rename without replacing. A hard link is never made over an existing
// name. Without hard links we look first, and another program may take the name before the rename.
bool moveWithoutRename2(const char* from, const char* to) {
  if (link(from, to) == 0) {
    unlink(from);  // if this fails the file has both names, which does no harm
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

// One name for all spellings of a path. Links are not followed, since that waits for the disk.
std::filesystem::path nameOf(const std::string& path) {
  return std::filesystem::path(path).lexically_normal();
}

class PosixFileManager final : public FileManager {
 public:
  // True also while a file of this name is being removed.
  bool isNameUsed(const std::string& path) const override {
    {
      const std::lock_guard hold(pending_->mutex);
      if (pending_->names.contains(nameOf(path))) return true;
    }
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
  }

  bool move(const std::string& from, const std::string& to) override {
    if (!moveUnlessExists(from.c_str(), to.c_str())) return false;
    // The file has moved even if its new name can't be synced.
    bestEffort([&] { syncDirectory(std::filesystem::path(to).parent_path()); });
    return true;
  }

  // On a disk that hangs the removal hangs, but the caller goes on.
  void remove(const std::string& path) override {
    const auto unlinkNow = [path, name = nameOf(path), pending = pending_] {
      unlink(path.c_str());
      const std::lock_guard hold(pending->mutex);
      pending->names.erase(name);
    };
    try {
      {
        const std::lock_guard hold(pending_->mutex);
        pending_->names.insert(nameOf(path));
      }
      startTask("lumora.remove", unlinkNow).wait_for(longestRemoval);
    } catch (const std::exception&) {  // no thread or no memory: the caller has to wait
      unlinkNow();
    }
  }

 private:
  // Names of files whose removal waits for the disk. A new file of such a name would be removed.
  struct PendingRemovals {
    std::mutex mutex;
    std::set<std::filesystem::path> names;
  };
  std::shared_ptr<PendingRemovals> pending_ = std::make_shared<PendingRemovals>();
};

}  // namespace

std::shared_ptr<FileManager> makePosixFileManager() { return std::make_shared<PosixFileManager>(); }

}  // namespace lumora
