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

// A full HD frame is 8 MB: with the default 64 KiB pipe it takes twice as long to come through.
void enlargePipe(int descriptor) {
#ifdef F_SETPIPE_SZ
  constexpr int pipeBytes = 1 << 20;  // what an unprivileged process may ask for
  if (fcntl(descriptor, F_GETPIPE_SZ) < pipeBytes) fcntl(descriptor, F_SETPIPE_SZ, pipeBytes);
#endif
}

// The exit status once the end is decided. Signal handlers read it.
constexpr int undecided = -1;
std::atomic<int> decidedStatus = undecided;
static_assert(std::atomic<int>::is_always_lock_free);

constexpr std::string_view unexpectedFailure =
    "{\"type\":\"error\",\"message\":\"unexpected failure\"}\n";

// Libraries abort when they are out of memory, and so does the runtime for an exception that nobody
// handles. Our exit statuses are 0 and 1 all the same.
void endOnAbort(int) {
  if (decidedStatus != undecided) _exit(decidedStatus);
  [[maybe_unused]] const ssize_t ignored =
      write(STDOUT_FILENO, unexpectedFailure.data(), unexpectedFailure.size());
  _exit(1);
}

// An encoder that hangs blocks the state queue while we wait for its frames, and then nothing else
// would end the process. A signal needs neither a thread nor memory.
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

// Only its queue touches the signal set.
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
      waitForNext(signals, handler);
      handler();
    });
  }

  std::shared_ptr<AsioQueue> queue_;
  std::shared_ptr<Signals> signals_;
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

PosixProcess::PosixProcess() {
  std::signal(SIGABRT, endOnAbort);
  enlargePipe(STDIN_FILENO);
}

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
  return std::make_unique<AsioSignal>(signals_, signal, handler);
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
