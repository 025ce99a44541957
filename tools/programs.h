#pragma once

// Other programs: run through the shell, and what they use of the machine.

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

namespace lumora::tools {

// `text` as one word of a shell command.
std::string shellQuoted(const std::string& text);

struct ClosePipe {
  void operator()(std::FILE* pipe) const { pclose(pipe); }
};
using CommandPipe = std::unique_ptr<std::FILE, ClosePipe>;
inline constexpr int pipeBytes = 1 << 20;  // the most that any user may ask for

// The standard output of a shell command, of which `pipeBytes` may wait. Throws std::system_error
// when no shell can be started.
CommandPipe openCommand(const std::string& command);

// What a command prints on both streams, and its status unless that is 0. Throws std::system_error
// when no shell can be started.
std::string outputOf(const std::string& command);

// ffmpeg's complaints while it decodes the whole file; empty when there are none.
std::string decodeErrors(const std::string& path);

// User and system time of our own process so far.
double ownCPUSeconds();

// The most memory that a running process has held so far. (`wait4` also counts what the parent held
// when it started the process.)
double peakMegabytes(pid_t process);

struct ProcessFigures {
  double residentMegabytes = 0;
  int descriptors = 0;
  int threads = 0;
};

// Of a running process, now.
ProcessFigures processFigures(pid_t process);

}  // namespace lumora::tools
