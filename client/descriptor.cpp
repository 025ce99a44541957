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

Deadline::Deadline(Seconds limit) : end_(std::chrono::steady_clock::now()) {
  if (limit > Seconds(0))
    end_ += std::chrono::ceil<std::chrono::milliseconds>(
        std::min<Seconds>(limit, std::chrono::hours(24)));
}

Seconds Deadline::left() const {
  return std::max<Seconds>(end_ - std::chrono::steady_clock::now(), Seconds(0));
}

int Deadline::millisecondsLeft() const {
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left()).count());
}

bool awaitEvents(int descriptor, short events, const Deadline& deadline) {
  for (;;) {
    pollfd entry{descriptor, events, 0};
    const int ready = poll(&entry, 1, deadline.millisecondsLeft());
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

}  // namespace lumora::client
