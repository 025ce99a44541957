#pragma once

#include <memory>

#include "platform/file_manager.h"

namespace lumora {

// The real file system.
class PosixFileManager final : public FileManager {
 public:
  PosixFileManager();
  // Also while one of this name is being removed.
  bool exists(const std::string& path) const override;
  bool move(const std::string& from, const std::string& to) override;
  void remove(const std::string& path) override;

 private:
  // Removals that a disk holds up: a file of such a name would fall to them.
  struct Pending;
  std::shared_ptr<Pending> pending_;
};

}  // namespace lumora
