#include "base/out_of_memory.h"

#include <chrono>
#include <new>
#include <thread>

namespace lumora {
namespace {

using WaitClock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds beforeRetry{10};
constexpr std::chrono::milliseconds betweenShortages{100};
constexpr std::chrono::seconds longestShortage{1};

// `new` calls this after each failed try. Calls of one thread that are at most `betweenShortages`
// apart belong to one shortage. Once a shortage has lasted a second, this throws instead of
// waiting. So code that handles std::bad_alloc does not wait again.
void waitBriefly() {
  thread_local WaitClock::time_point began;
  thread_local WaitClock::time_point latest;
  const auto now = WaitClock::now();
  if (now - latest > betweenShortages) began = now;
  latest = now;
  if (now - began >= longestShortage) throw std::bad_alloc();
  std::this_thread::sleep_for(beforeRetry);
  latest = WaitClock::now();  // again, since the sleep may outlast `betweenShortages`
}

}  // namespace

void waitForMemory() { std::set_new_handler(waitBriefly); }

}  // namespace lumora
