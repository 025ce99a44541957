#pragma once

#include <chrono>
#include <cstdint>
#include <span>

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
  explicit Deadline(double seconds);  // a day at most
  int millisecondsLeft() const;       // rounded up, never negative
  std::chrono::steady_clock::time_point time() const { return end_; }

 private:
  std::chrono::steady_clock::time_point end_;
};

// Waits until `descriptor` can be read or is at its end; false when the deadline passes first.
bool waitReadable(int descriptor, const Deadline& deadline);

}  // namespace lumora::client
