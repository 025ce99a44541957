#pragma once

// The process itself: its standard streams, its signals and its end.

#include <sys/types.h>

#include <memory>

#include "base/bytes.h"
#include "platform/dispatch.h"

namespace lumora {

// Runs its handler whenever the signal arrives. The handler may still run after `cancel` returns.
class SignalSource {
 public:
  virtual ~SignalSource() = default;
  virtual void cancel() = 0;
};

class Process {
 public:
  virtual ~Process() = default;
  // Waits for standard input and reads it into `space`. Returns the number of bytes read, 0 at the
  // end of the input, or -errno. Reader thread only.
  virtual ssize_t readInput(MutableByteView space) = 0;
  // One write of `text` to standard output. Returns the bytes written or -errno. State queue only.
  virtual ssize_t writeOutput(ByteView text) = 0;
  // The handler runs on a thread for signals, even when the state queue hangs. Null for a SIGHUP
  // that was ignored when the process started.
  virtual std::unique_ptr<SignalSource> onSignal(int signal, Work handler) = 0;
  // Ends the process at once, without running destructors. State queue only.
  virtual void exit(int code) = 0;
  // Makes the watchdog end the process in `seconds` with status `code`, whatever the threads are
  // doing then. Does nothing if it is armed already. Never throws. Any thread.
  virtual void armWatchdog(double seconds, int code) = 0;
  // Arms the watchdog, or replaces its time and code. Never throws. State queue only.
  virtual void rearmWatchdog(double seconds, int code) = 0;
};

}  // namespace lumora
