#pragma once

#include <memory>
#include <mutex>

#include "platform/process.h"
#include "system/asio_dispatch.h"

namespace lumora {

class PosixProcess final : public Process {
 public:
  // Enlarges the pipe on standard input, if there is one, and handles SIGABRT.
  PosixProcess();
  ssize_t readInput(MutableByteView space) override;
  ssize_t writeOutput(ByteView text) override;
  std::unique_ptr<SignalSource> onSignal(int signal, Work handler) override;
  void exit(int code) override;
  void armWatchdog(double seconds, int code) override;
  void rearmWatchdog(double seconds, int code) override;

 private:
  std::mutex watchdog_;  // guards the process's one timer
  const std::shared_ptr<AsioQueue> signals_ = std::make_shared<AsioQueue>("lumora.signals");
};

}  // namespace lumora
