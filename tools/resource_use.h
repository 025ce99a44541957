#pragma once

#include <sys/resource.h>
#include <sys/types.h>

namespace lumora::tools {

// User and system time together.
double cpuSeconds(const rusage& usage);
// Of our own process, so far.
double ownCPUSeconds();

// The most memory that a running process has held so far. (What `wait4` tells counts in what its
// parent held when it was started.)
double peakMegabytes(pid_t process);

struct ProcessFigures {
  double residentMegabytes = 0;
  int descriptors = 0;
  int threads = 0;
};

// Of a running process, now.
ProcessFigures processFigures(pid_t process);

}  // namespace lumora::tools
