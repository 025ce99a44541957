#include "picture/second_thread.h"

#include "base/thread_name.h"

namespace lumora {

SecondThread::SecondThread()
    : thread_([this] {
        nameThread("lumora.second");
        for (;;) {
          start_.acquire();
          if (work_ == nullptr) return;
          try {
            (*work_)();
          } catch (...) {
            failure_ = std::current_exception();
          }
          done_.release();
        }
      }) {}

SecondThread::~SecondThread() {
  work_ = nullptr;
  start_.release();
  thread_.join();
}

void SecondThread::runBoth(const std::function<void()>& mine, const std::function<void()>& other) {
  work_ = &other;
  failure_ = nullptr;
  start_.release();
  std::exception_ptr failure;
  try {
    mine();
  } catch (...) {
    failure = std::current_exception();
  }
  done_.acquire();
  if (!failure) failure = failure_;
  if (failure) std::rethrow_exception(failure);
}

}  // namespace lumora
