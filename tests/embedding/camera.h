// The camera of the README's example: a second of pictures of one colour each.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <span>

struct Camera {
  int left = 60;

  bool isRunning() const { return left > 0; }
  void readInto(std::span<std::uint8_t> picture) {
    usleep(1'000'000 / 60);
    std::ranges::fill(picture, static_cast<std::uint8_t>(--left));
  }
} camera;
