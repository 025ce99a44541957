#pragma once

#include <lumora/uptime.h>

#include <chrono>

namespace lumora::client {

// Owns one file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return descriptor_; }
  bool isOpen() const { return descriptor_ >= 0; }
  void reset();

 private:
  int descriptor_ = -1;
};

// The moment at which a wait gives up.
class Deadline {
 public:
  explicit Deadline(Seconds limit);  // `limit` from now, a day at most
  Seconds left() const;              // never negative
  int millisecondsLeft() const;      // rounded up
  std::chrono::steady_clock::time_point time() const { return end_; }

 private:
  std::chrono::steady_clock::time_point end_;
};

// Waits until poll(2) reports one of `events`, an error or a hangup. False when none came in time.
bool awaitEvents(int descriptor, short events, const Deadline& deadline);

}  // namespace lumora::client
