#include "system/posix_file_manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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

// One name for all spellings of a path. Links are not followed, since following waits for the disk.
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
    return lstat(path.c_str(), &status) == 0;  // a link that leads nowhere also uses its name
  }

  bool move(const std::string& from, const std::string& to) override {
    return moveUnlessExists(from, to);
  }

  void syncFolderOf(const std::string& path) override {
    bestEffort([&] { syncDirectory(std::filesystem::path(path).parent_path()); });
  }

  // If the disk hangs, so does the removal, but the caller goes on after `longestRemoval`.
  void remove(const std::vector<std::string>& paths) override {
    std::set<std::filesystem::path> names;
    for (const std::string& path : paths) names.insert(nameOf(path));
    const auto unlinkNow = [paths, names, pending = pending_] {
      for (const std::string& path : paths) unlink(path.c_str());
      const std::lock_guard hold(pending->mutex);
      for (const auto& name : names) pending->names.erase(name);
    };
    try {
      {
        const std::lock_guard hold(pending_->mutex);
        pending_->names.insert(names.begin(), names.end());
      }
      startTask("lumora.remove", unlinkNow).wait_for(longestRemoval);
    } catch (const std::exception&) {  // no thread or no memory: the caller has to wait
      unlinkNow();
    }
  }

 private:
  // Names of files whose removal waits for the disk. They count as used, because the removal would
  // also take a new file of such a name.
  struct PendingRemovals {
    std::mutex mutex;
    std::set<std::filesystem::path> names;
  };
  std::shared_ptr<PendingRemovals> pending_ = std::make_shared<PendingRemovals>();
};

}  // namespace

std::shared_ptr<FileManager> makePosixFileManager() { return std::make_shared<PosixFileManager>(); }

}  // namespace lumora
