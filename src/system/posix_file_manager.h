#pragma once

#include <memory>

#include "platform/file_manager.h"

namespace lumora {

// The real file system.
std::shared_ptr<FileManager> makePosixFileManager();

}  // namespace lumora
