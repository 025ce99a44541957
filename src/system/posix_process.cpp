#include "system/posix_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace lumora {
namespace {

// A full HD frame is 8 MB. Through the default pipe of 64 KiB it takes twice as long as through one
// of 1 MiB.
void enlargePipe(int descriptor) {
  constexpr int pipeBytes = 1 << 20;  // the most that an unprivileged process may ask for
  if (fcntl(descriptor, F_GETPIPE_SZ) < pipeBytes) fcntl(descriptor, F_SETPIPE_SZ, pipeBytes);
}

// The exit status, decided when the watchdog is armed. Signal handlers read it.
constexpr int undecided = -1;
std::atomic<int> decidedStatus = undecided;
static_assert(std::atomic<int>::is_always_lock_free);

// Once the watchdog is armed, an abort ends the process silently. A sanitized program still reports
// the abort, so that no test misses it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

constexpr std::string_view unexpectedFailure =
    "{\"type\":\"error\",\"message\":\"unexpected failure\"}\n";

// Libraries abort when they are out of memory, and the runtime aborts for an exception that nobody
// handles. With this handler, the exit status is 0 or 1 even then.
void endOnAbort(int) {
  if (decidedStatus != undecided && !isSanitized) _exit(decidedStatus);
  [[maybe_unused]] const ssize_t ignored =
      write(STDOUT_FILENO, unexpectedFailure.data(), unexpectedFailure.size());
  _exit(1);
}

// If an encoder hangs, the state queue waits forever for frames from it, and can't end the process.
// A signal can: it needs neither a thread nor memory.
void startWatchdog(double seconds, int code) {
  decidedStatus = code;
  std::signal(SIGALRM, [](int) { _exit(decidedStatus); });
  const auto whole = static_cast<time_t>(seconds);
  const auto rest = static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1e6);
  const itimerval once{.it_interval = {}, .it_value = {whole, rest}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

bool isIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// After construction only `queue_` touches the signal set.
class AsioSignal final : public SignalSource {
 public:
  AsioSignal(std::shared_ptr<AsioQueue> queue, int signal, const Work& handler)
      : queue_(std::move(queue)), signals_(std::make_shared<Signals>(queue_->context(), signal)) {
    waitForNext(signals_, handler);
  }
  ~AsioSignal() override { cancel(); }
  AsioSignal(const AsioSignal&) = delete;
  AsioSignal& operator=(const AsioSignal&) = delete;

  void cancel() override {
    queue_->async([signals = signals_] { signals->cancel(); });
  }

 private:
  using Signals = boost::asio::signal_set;

  static void waitForNext(const std::shared_ptr<Signals>& signals, const Work& handler) {
    signals->async_wait([signals, handler](const boost::system::error_code& error, int) {
      if (error) return;
      handler();  // comes first: it arms the watchdog, and the next line may lack memory
      waitForNext(signals, handler);
    });
  }

  std::shared_ptr<AsioQueue> queue_;
  std::shared_ptr<Signals> signals_;
};

#if defined(__SANITIZE_ADDRESS__)
// Checks again if the first check finds a leak. While a thread ends, the checker also reports
// memory that the C library is about to free (such as what a failed `dlopen` allocated). A real
// leak is still there the second time.
void checkForLeaks() {
  if (__lsan_do_recoverable_leak_check() == 0) return;
  usleep(100'000);
  __lsan_do_leak_check();
}
#endif

}  // namespace

PosixProcess::PosixProcess() {
  std::signal(SIGABRT, endOnAbort);
  enlargePipe(STDIN_FILENO);
}

ssize_t PosixProcess::readInput(MutableByteView space) {
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, space.data(), space.size());
    if (count >= 0) return count;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -errno;
    // Input may be non-blocking. The parent may have made it so. Or we did, if input and output are
    // one socket or terminal, because we make output non-blocking.
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (poll(&input, 1, -1) < 0) return -errno;
  }
}

ssize_t PosixProcess::writeOutput(ByteView text) {
  const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
  return count < 0 ? -errno : count;
}

std::unique_ptr<SignalSource> PosixProcess::onSignal(int signal, Work handler) {
  // A parent that ignores SIGHUP, as nohup does, wants the process to outlive its terminal.
  if (signal == SIGHUP && isIgnored(signal)) return nullptr;
  return std::make_unique<AsioSignal>(signals_, signal, handler);
}

// Runs no destructors. They would race with the reader, which can't be joined while `read` blocks.
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
  if (decidedStatus == undecided) startWatchdog(seconds, code);
}

void PosixProcess::rearmWatchdog(double seconds, int code) {
  const std::lock_guard hold(watchdog_);
  startWatchdog(seconds, code);
}

}  // namespace lumora
