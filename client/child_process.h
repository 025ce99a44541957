#pragma once

// A child process with its standard input and output on pipes. Three threads may use it at once:
// one for its input, one for its output, and one for the other functions.

#include <lumora/events.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/descriptor.h"
#include "client/records.h"

namespace lumora::client {

struct LaunchOptions {
  std::string program;                      // path of the helper, or a name on the PATH
  std::string token = {};                   // 16 to 128 characters A-Za-z0-9_-; empty: inherited
  std::vector<std::string> arguments = {};  // "--port", "0", ...
  std::map<std::string, std::string> environment = {};  // added to our own
  int frameMemory = -1;          // descriptor of memory shared with the child; -1: none
  std::string frameFormat = {};  // value of TAVO_FRAME_FORMAT; empty: not set
  std::string sound = {};        // value of TAVO_SOUND; empty: not set
  int outputBytes = 0;           // size of the child's output pipe; 0: the system's default
};

// A random token for one run.
std::string makeToken();

class ChildProcess {
 public:
  // Starts the program. No other program that we start inherits its pipes or the shared memory.
  // Throws std::system_error.
  explicit ChildProcess(const LaunchOptions& options);
  // Kills the child if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // A write blocks until all bytes are in the pipe. It returns false when the child has closed its
  // input, and then also raises SIGPIPE on the calling thread.
  bool writePixels(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> picture);
  // Writes the picture. If it lies in the memory shared with the child, writes its offset instead.
  bool writeFrame(const Frame& frame, std::uint64_t id);
  bool writeBytes(std::span<const std::uint8_t> bytes);
  void closeInput() { input_.reset(); }

  // The next line without its line feed; empty when none came in time or the output has ended.
  std::optional<std::string> nextLine(Seconds limit);
  // For output without lines: waits for bytes, returns how many came. 0 when none came in time or
  // the output has ended.
  std::size_t readOutput(std::span<char> bytes, const Deadline& deadline);
  void closeOutput() { output_.reset(); }
  // False once the end of the output was found, and after `closeOutput` or `abandon`.
  bool hasOutput() const { return output_.isOpen() && !isAbandoned_; }

  // False once the child has closed its input. Only valid before `closeInput`.
  bool takesInput() const;

  void sendSignal(int signal);
  // How the child ended; empty when it still runs after `limit`.
  std::optional<Exited> wait(Seconds limit);
  // Gives up on a child that does not end. From now on no read or write waits for the child, not
  // even one that another thread has begun. If the child has not ended yet, it counts as ended by
  // SIGKILL, and a thread collects its exit status.
  void abandon();
  pid_t pid() const { return pid_; }

 private:
  bool isReady(const Descriptor& descriptor, short events, const Deadline& deadline) const;
  bool writeAll(std::array<iovec, 2> parts);

  const int frameMemory_;
  pid_t pid_ = -1;
  Descriptor input_;     // our end of its standard input
  Descriptor output_;    // our end of its standard output
  std::string pending_;  // output that `nextLine` has not returned yet
  std::optional<Exited> exit_;
  std::atomic<bool> isAbandoned_ = false;
  // The ends of a pipe. `abandon` writes a byte to `wake_`. The byte ends every read and write that
  // waits. Closing `wake_` would not end them while a forked process has a copy of it.
  Descriptor wake_;
  Descriptor woken_;
};

}  // namespace lumora::client
