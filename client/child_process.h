#pragma once

// A helper as a child process: its standard input, its lines, its end. One thread may write while
// another reads lines; the rest is for one thread at a time.

#include <sys/resource.h>
#include <sys/types.h>

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
  std::string program;                 // path of the helper, or a name on the PATH
  std::string token;                   // 16 to 128 of A-Z a-z 0-9 _ -; empty: none is passed
  std::vector<std::string> arguments;  // "--port", "0", ...
  std::map<std::string, std::string> environment;  // on top of our own
  int frameMemory = -1;                            // descriptor of slots that it may see
};

struct ExitStatus {
  int code = 0;        // when it ended by itself; -1: not known
  int signal = 0;      // else the signal that ended it
  rusage resources{};  // what its whole life took
};

// A token for one run, from the system's random source.
std::string makeToken();

class ChildProcess {
 public:
  // Starts it with its standard input and output on pipes. No other child inherits those or the
  // memory. Throws std::system_error.
  explicit ChildProcess(const LaunchOptions& options);
  // Kills it if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The writes block until all bytes are taken; false when it no longer reads, which raises SIGPIPE
  // on the calling thread.
  bool writePixels(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  // Only where its pixels lie, if that is in memory which the helper sees.
  bool writeFrame(const Frame& frame, std::uint64_t id);
  bool writeBytes(std::span<const std::uint8_t> bytes);
  void closeInput() { input_.reset(); }

  // The next line without its line feed; nothing when none came in time or the output has ended.
  std::optional<std::string> nextLine(double timeoutSeconds);
  void closeOutput() { output_.reset(); }

  // Whether it still reads.
  bool takesInput() const;

  void sendSignal(int signal);
  // How it ended, or nothing when it still runs after `timeoutSeconds`.
  std::optional<ExitStatus> wait(double timeoutSeconds);
  pid_t pid() const { return pid_; }

 private:
  const int frameMemory_;
  pid_t pid_ = -1;
  Descriptor input_;   // its standard input
  Descriptor output_;  // its standard output
  std::string pending_;
  std::optional<ExitStatus> status_;
};

}  // namespace lumora::client
