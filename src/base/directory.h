#pragma once

#include <string>

namespace lumora {

// Waits until the names in a directory are on the disk, as far as the file system lets anybody ask
// for it: 0 or an errno. A new name is safe against a power cut only then.
int syncDirectory(const std::string& path);

}  // namespace lumora
