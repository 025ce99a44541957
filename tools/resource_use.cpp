#include "tools/resource_use.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace lumora::tools {

double cpuSeconds(const rusage& usage) {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double ownCPUSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return cpuSeconds(usage);
}

namespace {

// A number in /proc's "status".
double statusNumber(pid_t process, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) return std::stod(line.substr(key.size()));
  }
  return 0;
}

}  // namespace

double peakMegabytes(pid_t process) { return statusNumber(process, "VmHWM:") / 1024; }

ProcessFigures processFigures(pid_t process) {
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(process) + "/fd");
  return {statusNumber(process, "VmRSS:") / 1024,
          static_cast<int>(std::distance(open, std::filesystem::directory_iterator())),
          static_cast<int>(statusNumber(process, "Threads:"))};
}

}  // namespace lumora::tools
