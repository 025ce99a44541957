#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace lumora::client {

// Starts a thread that blocks all signals. The application's signals then reach its own threads
// only, and a write to a helper that has closed its input fails instead of ending the process.
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
