#pragma once

// A thread that takes over half of a short piece of work. It sleeps in between.

#include <exception>
#include <functional>
#include <semaphore>
#include <thread>

namespace lumora {

class SecondThread {
 public:
  SecondThread();
  ~SecondThread();
  SecondThread(const SecondThread&) = delete;
  SecondThread& operator=(const SecondThread&) = delete;

  // Runs both at once, `mine` on the calling thread; returns when both are done, then throws
  // what one of them threw. One caller at a time.
  void runBoth(const std::function<void()>& mine, const std::function<void()>& other);

 private:
  const std::function<void()>* work_ = nullptr;  // null: the end
  std::exception_ptr failure_;                   // of `work_`
  std::binary_semaphore start_{0};
  std::binary_semaphore done_{0};
  std::thread thread_;
};

}  // namespace lumora
