#include "client/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <random>
#include <system_error>
#include <thread>

#include "client/frame_layout.h"
#include "client/frame_slots.h"
#include "client/quiet_thread.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it undeclared

namespace lumora::client {
namespace {

constexpr std::size_t maximumPending = std::size_t{1} << 16;  // bytes of an unfinished line
constexpr Seconds aDay = std::chrono::hours(24);

struct Pipe {
  Descriptor read;
  Descriptor write;
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::vector<std::string> childEnvironment(const LaunchOptions& options) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const auto equals = text.find('=');
    if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
  }
  // If our own parent set these, they describe the input that we get, not the child's.
  for (const char* name : {"TAVO_FRAME_MEMORY", "TAVO_FRAME_FORMAT", "TAVO_SOUND"})
    merged.erase(name);
  for (const auto& [name, value] : options.environment) merged[name] = value;
  if (!options.token.empty()) merged["TAVO_VIDEO_TOKEN"] = options.token;
  if (options.frameMemory >= 0) merged["TAVO_FRAME_MEMORY"] = std::to_string(options.frameMemory);
  if (!options.frameFormat.empty()) merged["TAVO_FRAME_FORMAT"] = options.frameFormat;
  if (!options.sound.empty()) merged["TAVO_SOUND"] = options.sound;
  std::vector<std::string> result;
  for (const auto& [name, value] : merged) result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

pid_t spawn(const LaunchOptions& options, int input, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  if (options.frameMemory >= 0) {
    // Duplicating it onto itself clears its close-on-exec flag in the child.
    posix_spawn_file_actions_adddup2(&actions, options.frameMemory, options.frameMemory);
  }
  std::vector<std::string> arguments = {options.program};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  std::vector<std::string> environment = childEnvironment(options);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, options.program.c_str(), &actions, nullptr,
                                 pointers(arguments).data(), pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), options.program);
  return pid;
}

// Drops `count` bytes from the front of what is left to write.
void advance(std::array<iovec, 2>& parts, std::size_t count) {
  for (iovec& part : parts) {
    const std::size_t taken = std::min(count, part.iov_len);
    part.iov_base = static_cast<std::uint8_t*>(part.iov_base) + taken;
    part.iov_len -= taken;
    count -= taken;
  }
}

iovec part(std::span<const std::uint8_t> bytes) {
  return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
}

Seconds cpuTime(const rusage& usage) {
  const auto length = [](const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
  };
  return length(usage.ru_utime) + length(usage.ru_stime);
}

Exited exitOf(int status, const rusage& usage) {
  Exited end{.cpuTime = cpuTime(usage)};
  if (WIFEXITED(status))
    end.status = WEXITSTATUS(status);
  else
    end.signal = WTERMSIG(status);
  return end;
}

}  // namespace

std::string makeToken() {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  std::random_device random;
  std::string token(43, '\0');  // 258 random bits
  for (char& character : token) character = alphabet[random() % alphabet.size()];
  return token;
}

ChildProcess::ChildProcess(const LaunchOptions& options) : frameMemory_(options.frameMemory) {
  Pipe input = makePipe();
  Pipe output = makePipe();
  Pipe waking = makePipe();
  // Our end does not block, so that `abandon` can end a write. The child's end still blocks.
  fcntl(input.write.get(), F_SETFL, O_NONBLOCK);
  if (options.outputBytes > 0) fcntl(output.read.get(), F_SETPIPE_SZ, options.outputBytes);
  pid_ = spawn(options, input.read.get(), output.write.get());
  input_ = std::move(input.write);
  output_ = std::move(output.read);
  wake_ = std::move(waking.write);
  woken_ = std::move(waking.read);
}

ChildProcess::~ChildProcess() {
  if (exit_) return;
  sendSignal(SIGKILL);
  if (!wait(Seconds(10))) abandon();
}

bool ChildProcess::writePixels(FrameSize size, std::uint64_t id,
                               std::span<const std::uint8_t> picture) {
  const RecordHeaderBytes header = frameHeader(size, id, picture.size());
  return writeAll({part(header), part(picture)});
}

bool ChildProcess::writeFrame(const Frame& frame, std::uint64_t id) {
  Frame::Loan& slot = *frame.loan_;
  // The frame may lie in memory that is shared with another helper.
  const bool isShared = frameMemory_ >= 0 && slot.from().descriptor() == frameMemory_;
  if (!isShared) return writePixels(frame.size(), id, frame.pixels().first(frame.length_));
  std::optional<std::uint64_t> length;
  if (layoutOf(frame.format().encoding).isCompressed()) length = frame.length_;
  if (!writeBytes(frameReference(frame.size(), id, slot.offset(), length))) return false;
  slot.markPublished(id);
  return true;
}

bool ChildProcess::takesInput() const {
  pollfd input{.fd = input_.get(), .events = 0, .revents = 0};
  return poll(&input, 1, 0) == 0;
}

bool ChildProcess::writeBytes(std::span<const std::uint8_t> bytes) {
  return writeAll({part(bytes), iovec{nullptr, 0}});
}

bool ChildProcess::writeAll(std::array<iovec, 2> parts) {
  while (input_.isOpen() && parts[0].iov_len + parts[1].iov_len > 0) {
    const ssize_t count = writev(input_.get(), parts.data(), static_cast<int>(parts.size()));
    if (count >= 0)
      advance(parts, static_cast<std::size_t>(count));
    else if (errno == EAGAIN ? !isReady(input_, POLLOUT, Deadline(aDay)) : errno != EINTR)
      return false;
  }
  return input_.isOpen();
}

bool ChildProcess::isReady(const Descriptor& descriptor, short events,
                           const Deadline& deadline) const {
  std::array<pollfd, 2> entries{pollfd{descriptor.get(), events, 0}, {woken_.get(), POLLIN, 0}};
  int ready = 0;
  do {
    ready = poll(entries.data(), entries.size(), deadline.millisecondsLeft());
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && !isAbandoned_;
}

std::optional<std::string> ChildProcess::nextLine(Seconds limit) {
  const Deadline deadline(limit);
  for (;;) {
    const auto feed = pending_.find('\n');
    if (feed != std::string::npos) {
      std::string line = pending_.substr(0, feed);
      pending_.erase(0, feed + 1);
      return line;
    }
    std::array<char, 4096> bytes;
    const std::size_t count = readOutput(bytes, deadline);
    if (count == 0) return std::nullopt;
    const bool isFlood = pending_.size() > maximumPending;  // no helper writes such a line
    if (isFlood) pending_.clear();
    pending_.append(bytes.data(), count);
    if (isFlood && deadline.left() == Seconds(0)) return std::nullopt;
  }
}

std::size_t ChildProcess::readOutput(std::span<char> bytes, const Deadline& deadline) {
  while (output_.isOpen() && isReady(output_, POLLIN, deadline)) {
    const ssize_t count = read(output_.get(), bytes.data(), bytes.size());
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0 || errno != EINTR) output_.reset();
  }
  return 0;
}

void ChildProcess::sendSignal(int signal) {
  // Once the child's status has been collected, its process id may belong to another process.
  if (!wait(Seconds(0))) kill(pid_, signal);
}

std::optional<Exited> ChildProcess::wait(Seconds limit) {
  const Deadline deadline(limit);
  while (!exit_) {
    int status = 0;
    rusage usage{};
    const pid_t ended = wait4(pid_, &status, WNOHANG, &usage);
    if (ended == pid_) {
      exit_ = exitOf(status, usage);
    } else if (ended < 0 && errno == ECHILD) {
      exit_ = Exited{.status = -1};  // SIGCHLD is ignored, or other code collected the status
    } else if (deadline.millisecondsLeft() == 0) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  return exit_;
}

void ChildProcess::abandon() {
  isAbandoned_ = true;
  static_cast<void>(write(wake_.get(), "", 1) == 1);
  if (wait(Seconds(0))) return;
  exit_ = Exited{.signal = SIGKILL};
  try {
    startQuietThread([pid = pid_] {
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
    }).detach();
  } catch (const std::system_error&) {  // no thread: the child stays a zombie once it ends
  }
}

}  // namespace lumora::client
