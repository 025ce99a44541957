#pragma once

#include <string>

namespace lumora {

// Waits until the names in a directory are on the disk. Before that, a power cut may lose a new
// name. Returns 0 or an errno. Returns 0 also if the directory is unreadable or its file system
// can't sync it.
int syncDirectory(const std::string& path);

// Renames a file within its file system. False if `to` exists or the move is impossible.
bool moveUnlessExists(const std::string& from, const std::string& to);

}  // namespace lumora
