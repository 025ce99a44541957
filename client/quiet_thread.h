#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace lumora::client {

// Starts a thread that blocks all signals, except those of its own faults. Signals to the process
// then reach only the application's own threads. If a helper has closed its input, a write by this
// thread fails, and SIGPIPE does not end the process.
template <typename Work>
std::thread startQuietThread(Work work) {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
    sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  struct Restore {
    const sigset_t& mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } const restore{before};
  return std::thread(std::move(work));
}

}  // namespace lumora::client
