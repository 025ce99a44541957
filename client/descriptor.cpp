#include "client/descriptor.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace lumora::client {

Descriptor::Descriptor(Descriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

void Descriptor::reset() {
  if (isOpen()) close(descriptor_);
  descriptor_ = -1;
}

Deadline::Deadline(double seconds)
    : end_(std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(seconds > 0 ? std::min(seconds, 86400.0) : 0))) {}

int Deadline::millisecondsLeft() const {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

bool waitReadable(int descriptor, const Deadline& deadline) {
  for (;;) {
    pollfd entry{descriptor, POLLIN, 0};
    const int ready = poll(&entry, 1, deadline.millisecondsLeft());
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

}  // namespace lumora::client
