#include "system/posix_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
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
        arm(state);
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
  const ssize_t count = ::read(STDIN_FILENO, space.data(), space.size());
  return count < 0 ? -errno : count;
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
  *ending_ = true;
#if defined(__SANITIZE_ADDRESS__)
  checkForLeaks();  // `_exit` skips the check that an instrumented process does at its end
#endif
  _exit(code);
}

// An encoder that hangs holds the state queue in a flush, and with it everything that ends us.
void PosixProcess::exitAfter(double seconds, int code) {
  *watchdogCode_ = code;
  if (watched_.exchange(true)) return;
  signals_->asyncAfter(seconds, [code = watchdogCode_, ending = ending_] {
    if (!*ending) _exit(*code);
  });
}

}  // namespace lumora
