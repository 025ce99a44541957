#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

namespace lumora {

// Waits until another thread has made `holds` true. Fails the test if that takes more than 20 s.
inline void waitUntil(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return ADD_FAILURE() << "waited for 20 s", void();
    std::this_thread::yield();
  }
}

}  // namespace lumora
