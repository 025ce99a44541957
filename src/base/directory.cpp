#include "base/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace lumora {
namespace {

// For file systems whose rename can't refuse an existing name. A hard link never replaces a file.
// Without hard links we check that `to` is free, but another program may take it before the rename.
bool moveWithoutRename2(const char* from, const char* to) {
  if (link(from, to) == 0) {
    unlink(from);  // if this fails the file has both names, which does no harm
    return true;
  }
  if (errno == EEXIST) return false;
  struct stat status {};
  return lstat(to, &status) != 0 && std::rename(from, to) == 0;
}

}  // namespace

int syncDirectory(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // A directory that we may write to but not read can't be synced.
  if (descriptor < 0) return errno == EACCES ? 0 : errno;
  const int error = fsync(descriptor) == 0 || errno == EINVAL ? 0 : errno;
  close(descriptor);
  return error;
}

bool moveUnlessExists(const std::string& from, const std::string& to) {
#ifdef RENAME_NOREPLACE
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
#endif
  return moveWithoutRename2(from.c_str(), to.c_str());
}

}  // namespace lumora
