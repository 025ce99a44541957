#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace lumora::client {

// A thread that takes no signals: the application's are for its own threads, and a helper that no
// longer reads shows as a failed write.
template <typename Work>
std::thread startQuietThread(Work work) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  struct Restore {
    const sigset_t& mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } const restore{before};
  return std::thread(std::move(work));
}

}  // namespace lumora::client
