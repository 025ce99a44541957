#pragma once

#include "platform/file_manager.h"

namespace lumora {

// The real file system.
class PosixFileManager final : public FileManager {
 public:
  bool exists(const std::string& path) const override;
  bool move(const std::string& from, const std::string& to) override;
  void remove(const std::string& path) override;
};

}  // namespace lumora
