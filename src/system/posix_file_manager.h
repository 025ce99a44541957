#pragma once

#include <memory>

#include "platform/file_manager.h"

namespace lumora {

// The real file system.
class PosixFileManager final : public FileManager {
 public:
  PosixFileManager();
  // True also while a file of this name is being removed.
  bool isNameUsed(const std::string& path) const override;
  bool move(const std::string& from, const std::string& to) override;
  void remove(const std::string& path) override;

 private:
  struct PendingRemovals;
  std::shared_ptr<PendingRemovals> pending_;
};

}  // namespace lumora
