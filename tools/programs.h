#pragma once

// Runs other programs through the shell, and measures what processes use of the machine.

#include <sys/types.h>

#include <span>
#include <string>

#include "client/child_process.h"

namespace lumora::tools {

// `text` as one word of a shell command.
std::string shellQuoted(const std::string& text);

inline constexpr int pipeBytes = 1 << 20;  // Linux's default limit for users other than root

// The standard output of a program. Up to `pipeBytes` of it may wait to be read.
class CommandPipe {
 public:
  // `command`: a program and its arguments, quoted for a shell. Throws std::system_error when no
  // shell can be started.
  explicit CommandPipe(const std::string& command);
  // Waits for bytes, and returns how many came; 0 at the end.
  std::size_t read(std::span<char> bytes);
  // Ends the program, as the destructor does. A thread that waits in `read` gets 0.
  void stop();

 private:
  client::ChildProcess process_;
};

// What a command prints on both streams, and its exit status unless that is 0. Throws
// std::system_error when no shell can be started.
std::string outputOf(const std::string& command);

// ffmpeg's complaints while it decodes the file, up to the first error. Empty if the whole file
// decodes.
std::string decodeErrors(const std::string& path);

// User and system time of our own process so far.
double ownCPUSeconds();

// The most memory that a running process has held so far. (`wait4` would not do: it also counts
// what the parent held when the process was started.)
double peakMegabytes(pid_t process);

struct ProcessFigures {
  double residentMegabytes = 0;
  int descriptors = 0;
  int threads = 0;
};

// Of a running process, now. For a process that has ended: zeros, or it throws
// std::filesystem::filesystem_error.
ProcessFigures processFigures(pid_t process);

}  // namespace lumora::tools
