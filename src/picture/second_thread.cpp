#include "picture/second_thread.h"

#include "base/thread_name.h"

namespace lumora {

SecondThread::SecondThread()
    : thread_([this] {
        nameThread("lumora.second");
        for (;;) {
          start_.acquire();
          if (work_ == nullptr) return;
          (*work_)();
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
  start_.release();
  mine();
  done_.acquire();
}

}  // namespace lumora
