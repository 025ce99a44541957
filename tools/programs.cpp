#include "tools/programs.h"

#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "client/descriptor.h"

namespace lumora::tools {
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

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char character : text) {
    quoted += character == '\'' ? "'\\''" : std::string(1, character);
  }
  return quoted + "'";
}

CommandPipe::CommandPipe(const std::string& command)
    : process_({.program = "/bin/sh",
                .arguments = {"-c", "exec " + command},
                .outputBytes = pipeBytes}) {}

std::size_t CommandPipe::read(std::span<char> bytes) {
  std::size_t count = 0;
  while (count == 0 && process_.hasOutput())
    count = process_.readOutput(bytes, client::Deadline(client::Seconds::max()));
  return count;
}

// An ffmpeg that waits for its device ignores SIGTERM.
void CommandPipe::stop() {
  process_.sendSignal(SIGKILL);
  process_.abandon();
}

std::string outputOf(const std::string& command) {
  std::FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
  if (pipe == nullptr) throw std::system_error(errno, std::generic_category(), command);
  std::string output;
  std::array<char, 4096> bytes;
  while (const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
    output.append(bytes.data(), count);
  const int ended = pclose(pipe);  // a status as waitpid(2) gives it
  const int status = WIFEXITED(ended) ? WEXITSTATUS(ended) : 128 + WTERMSIG(ended);
  return status == 0 ? output : output + "(ended with " + std::to_string(status) + ")";
}

// Frames keep their own times. If ffmpeg guessed a frame rate, it would round the times of some
// frames to the same value, and complain.
std::string decodeErrors(const std::string& path) {
  return outputOf("ffmpeg -v error -xerror -nostdin -i " + shellQuoted(path) +
                  " -fps_mode passthrough -enc_time_base -1 -f null -");
}

double ownCPUSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

double peakMegabytes(pid_t process) { return statusNumber(process, "VmHWM:") / 1024; }

ProcessFigures processFigures(pid_t process) {
  const std::filesystem::directory_iterator open("/proc/" + std::to_string(process) + "/fd");
  return {statusNumber(process, "VmRSS:") / 1024,
          static_cast<int>(std::distance(open, std::filesystem::directory_iterator())),
          static_cast<int>(statusNumber(process, "Threads:"))};
}

}  // namespace lumora::tools
