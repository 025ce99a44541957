#pragma once

#include <string>
#include <vector>

namespace lumora {

// Names and removal of files. Any thread.
class FileManager {
 public:
  virtual ~FileManager() = default;
  // Whether the name is taken: a file of this name exists, or its removal is still pending.
  virtual bool isNameUsed(const std::string& path) const = 0;
  // Renames within a file system. False when `to` exists or the move is impossible.
  virtual bool move(const std::string& from, const std::string& to) = 0;
  // Makes the names in the folder of `path` survive a power cut, if the folder can be synced.
  virtual void syncFolderOf(const std::string& path) = 0;
  // Removes the files on a thread of its own. Waits a second at most: if the disk hangs longer,
  // they are removed later. If no thread can be started, waits for as long as the disk hangs.
  virtual void remove(const std::vector<std::string>& paths) = 0;
};

}  // namespace lumora
