#include "system/posix_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <utility>

#include "base/out_of_memory.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace lumora {
namespace {

// A full HD frame is 8 MB: with the default 64 KiB pipe it takes twice as long to come through.
void enlargePipe(int descriptor) {
#ifdef F_SETPIPE_SZ
  constexpr int pipeBytes = 1 << 20;  // what an unprivileged process may ask for
  if (fcntl(descriptor, F_GETPIPE_SZ) < pipeBytes) fcntl(descriptor, F_SETPIPE_SZ, pipeBytes);
#endif
}

// What a signal handler can reach.
std::atomic<int> watchdogCode = 0;
static_assert(std::atomic<int>::is_always_lock_free);

// An encoder that hangs holds the state queue in a flush, and with it everything that ends us. A
// signal needs neither a thread nor memory.
void startWatchdog(double seconds, int code) {
  watchdogCode = code;
  std::signal(SIGALRM, [](int) { _exit(watchdogCode); });
  const auto whole = static_cast<time_t>(seconds);
  const auto rest = static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6);
  const itimerval once{.it_interval = {}, .it_value = {whole, rest}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

bool isIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Lives on its queue, which alone may touch the signal set.
class AsioSignal final : public SignalSource {
 public:
  AsioSignal(std::shared_ptr<AsioQueue> queue, int signal, Work handler)
      : queue_(std::move(queue)),
        state_(std::make_shared<State>(queue_->context(), signal, std::move(handler))) {
    State::arm(state_);
  }
  ~AsioSignal() override { cancel(); }
  AsioSignal(const AsioSignal&) = delete;
  AsioSignal& operator=(const AsioSignal&) = delete;

  void cancel() override {
    queue_->async([state = state_] { state->signals.cancel(); });
  }

 private:
  struct State {
    State(boost::asio::io_context& context, int signal, Work work)
        : signals(context, signal), handler(std::move(work)) {}

    static void arm(const std::shared_ptr<State>& state) {
      state->signals.async_wait([state](const boost::system::error_code& error, int) {
        if (error) return;
        retryUntilAllocated([&] { arm(state); });
        state->handler();
      });
    }

    boost::asio::signal_set signals;
    Work handler;
  };
  std::shared_ptr<AsioQueue> queue_;
  std::shared_ptr<State> state_;
};

#if defined(__SANITIZE_ADDRESS__)
// Of a thread that is just ending, the checker no longer sees what the C library is about to give
// back (what a failed `dlopen` left, when an encoder was looked for). A leak is what stays.
void checkForLeaks() {
  if (__lsan_do_recoverable_leak_check() == 0) return;
  usleep(100'000);
  __lsan_do_leak_check();
}
#endif

}  // namespace

PosixProcess::PosixProcess() { enlargePipe(STDIN_FILENO); }

ssize_t PosixProcess::readInput(MutableByteView space) {
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, space.data(), space.size());
    if (count >= 0) return count;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -errno;
    // Not blocking is a property of the open file: the parent may have set it, and where input and
    // output are one socket or terminal, we have.
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (poll(&input, 1, -1) < 0) return -errno;
  }
}

ssize_t PosixProcess::writeOutput(ByteView text) {
  const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
  return count < 0 ? -errno : count;
}

std::unique_ptr<SignalSource> PosixProcess::onSignal(int signal, Work handler) {
  // Whoever has it ignored, as "nohup" does, wants the process to outlive its terminal.
  if (signal == SIGHUP && isIgnored(signal)) return nullptr;
  return std::make_unique<AsioSignal>(signals_, signal, std::move(handler));
}

// No destructor may race the reader, which is blocked in `read`.
void PosixProcess::exit(int code) {
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
#if defined(__SANITIZE_ADDRESS__)
  checkForLeaks();  // `_exit` skips the check that an instrumented process does at its end
#endif
  _exit(code);
}

void PosixProcess::armWatchdog(double seconds, int code) {
  const std::lock_guard hold(watchdog_);
  if (!std::exchange(isArmed_, true)) startWatchdog(seconds, code);
}

void PosixProcess::rearmWatchdog(double seconds, int code) {
  const std::lock_guard hold(watchdog_);
  isArmed_ = true;
  startWatchdog(seconds, code);
}

}  // namespace lumora
