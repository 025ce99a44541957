#include "base/directory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace lumora {

int syncDirectory(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // A directory that we may write to but not read can't be synced.
  if (descriptor < 0) return errno == EACCES ? 0 : errno;
  const int error = fsync(descriptor) == 0 || errno == EINVAL ? 0 : errno;
  close(descriptor);
  return error;
}

}  // namespace lumora
