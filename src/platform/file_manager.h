#pragma once

#include <string>

namespace lumora {

// Names and removal of files. Any thread.
class FileManager {
 public:
  virtual ~FileManager() = default;
  // Whether the name is taken: a file of this name exists, or its removal is still pending.
  virtual bool isNameUsed(const std::string& path) const = 0;
  // Renames within a file system. The new name survives a power cut if the directory can be synced.
  // False when `to` exists or the move is impossible.
  virtual bool move(const std::string& from, const std::string& to) = 0;
  // Waits at most a second. If the disk hangs longer the file is removed later.
  virtual void remove(const std::string& path) = 0;
};

}  // namespace lumora
