#pragma once

// The process itself: its standard streams, its signals and its end.

#include <sys/types.h>

#include <memory>

#include "base/bytes.h"
#include "platform/dispatch.h"

namespace lumora {

// Runs its handler whenever the signal arrives, until cancelled; a last time may overlap with that.
class SignalSource {
 public:
  virtual ~SignalSource() = default;
  virtual void cancel() = 0;
};

class Process {
 public:
  virtual ~Process() = default;
  // Blocking read of standard input into `space`: bytes read, 0 at the end, or -errno.
  // Reader thread only.
  virtual ssize_t readInput(MutableByteView space) = 0;
  // One write of `text` to standard output: bytes written or -errno. State queue only.
  virtual ssize_t writeOutput(ByteView text) = 0;
  // The handler runs on a thread for signals, whatever the state queue is doing. Null for a SIGHUP
  // that the process has been started to ignore.
  virtual std::unique_ptr<SignalSource> onSignal(int signal, Work handler) = 0;
  // Ends the process at once, without running destructors. State queue only.
  virtual void exit(int code) = 0;
  // The watchdog ends the process in `seconds`, whatever any thread is doing then, unless it is
  // armed already. Never throws. Any thread.
  virtual void armWatchdog(double seconds, int code) = 0;
  // Replaces the watchdog's time and code, or arms it. Never throws. State queue only.
  virtual void rearmWatchdog(double seconds, int code) = 0;
};

}  // namespace lumora
