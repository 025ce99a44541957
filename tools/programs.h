#pragma once

// Other programs: run through the shell, and what they use of the machine.

#include <sys/types.h>

#include <string>

namespace lumora::tools {

// `text` as one word of a shell command.
std::string shellQuoted(const std::string& text);

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
