#include "bench/pipeline.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "client/descriptor.h"
#include "tools/resource_use.h"

extern char** environ;

namespace lumora::bench {
namespace {

constexpr int pipeBytes = 1 << 20;  // what the helper asks for, too

void enlarge([[maybe_unused]] int pipe) {
#ifdef F_SETPIPE_SZ
  fcntl(pipe, F_SETPIPE_SZ, pipeBytes);
#endif
}

pid_t launch(const std::vector<std::string>& command, int input) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = -1;
  const int error =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
  return child;
}

bool writeAll(int to, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(to, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

PipelineReport runPipeline(const std::vector<std::string>& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond) {
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  client::Descriptor output(ends[0]);
  client::Descriptor input(ends[1]);
  enlarge(input.get());
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = launch(command, output.get());
  output.reset();
  auto due = start;
  for (const std::uint64_t number : numbers) {
    if (framesPerSecond > 0) {
      std::this_thread::sleep_until(due);
      due += std::chrono::microseconds(1'000'000 / framesPerSecond);
    }
    if (!writeAll(input.get(), clip.next(number, 0))) break;
  }
  const double peak = tools::peakMegabytes(child);
  input.reset();
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(command[0] + " failed");
  }
  return {tools::cpuSeconds(usage),
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), peak};
}

FramePipe::FramePipe(std::size_t frameBytes, int count) {
  const std::string command = "exec dd if=/dev/zero status=none bs=" + std::to_string(frameBytes) +
                              " count=" + std::to_string(count);
  std::FILE* opened = popen(command.c_str(), "r");
  if (opened == nullptr) throw std::system_error(errno, std::generic_category(), "dd");
  pipe_.reset(opened, pclose);
  enlarge(fileno(opened));
}

void FramePipe::read(std::span<std::uint8_t> frame) const {
  while (!frame.empty()) {
    const ssize_t count = ::read(fileno(pipe_.get()), frame.data(), frame.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw std::runtime_error("the frames ended early");
    frame = frame.subspan(static_cast<std::size_t>(count));
  }
}

std::vector<std::uint64_t> firstNumbers(int count) {
  std::vector<std::uint64_t> numbers(static_cast<std::size_t>(count));
  std::iota(numbers.begin(), numbers.end(), 1);
  return numbers;
}

}  // namespace lumora::bench
