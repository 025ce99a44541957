#pragma once

#include <string>

namespace lumora {

// Names of files. Any thread.
class FileManager {
 public:
  virtual ~FileManager() = default;
  // Whether nothing may be made under this name.
  virtual bool isNameUsed(const std::string& path) const = 0;
  // Renames within a file system, durably where its directory can be synced; false when `to` exists
  // or the move is impossible.
  virtual bool move(const std::string& from, const std::string& to) = 0;
  // Waits for at most a second; a disk that hangs removes the file when it comes back.
  virtual void remove(const std::string& path) = 0;
};

}  // namespace lumora
