#pragma once

#include <pthread.h>

#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace lumora {

// Runs `work` on a detached thread that carries `name`, for debuggers and `top`. Throws
// std::system_error if no thread can be made.
template <typename Work>
void startThread(const std::string& name, Work work) {
  std::thread([name, work = std::move(work)]() mutable {
    constexpr std::size_t shown = 15;  // Linux refuses longer names
    pthread_setname_np(pthread_self(), name.substr(0, shown).c_str());
    work();
  }).detach();
}

// Like `startThread`, but returns a future that gets what `work` returns or throws. The destructor
// of the future does not wait.
template <typename Work>
auto startTask(const std::string& name, Work work) {
  std::packaged_task<std::invoke_result_t<Work>()> task(std::move(work));
  auto result = task.get_future();
  startThread(name, std::move(task));
  return result;
}

}  // namespace lumora
