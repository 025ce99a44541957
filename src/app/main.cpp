// Process entry: configuration, the one VideoEncoder, then the main thread parks for good.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <string_view>
#include <system_error>

#include "app/options.h"
#include "app/video_encoder.h"
#include "base/process_heap.h"
#include "system/system_platform.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it undeclared

namespace {

// These two lines stand before or beside the event channel, so they are literal bytes.
constexpr std::string_view invalidConfiguration =
    "{\"type\":\"error\",\"message\":\"invalid helper configuration\"}\n";
constexpr std::string_view listenerFailed =
    "{\"type\":\"error\",\"message\":\"video listener initialization failed\"}\n";

[[noreturn]] void endWith(std::string_view line) {
  // A parent that does not take the line still learns the outcome from the exit status.
  [[maybe_unused]] const ssize_t ignored = write(STDOUT_FILENO, line.data(), line.size());
  _exit(1);
}

void makeOutputNonBlocking() {
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  if (flags >= 0) fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
}

lumora::Environment readEnvironment() {
  lumora::Environment environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    environment.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return environment;
}

std::string encoderChoice(const lumora::Environment& environment) {
  const auto found = environment.find("TAVO_H264_ENCODER");
  return found == environment.end() ? std::string() : found->second;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  makeOutputNonBlocking();
  const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const lumora::Environment environment = readEnvironment();
  const auto configuration = lumora::options(arguments, environment);
  if (!configuration) endWith(invalidConfiguration);

  lumora::keepFreedMemory();
  // Lives until the process ends: `exit` never runs its destructor.
  static const lumora::Platform platform = lumora::makeSystemPlatform(encoderChoice(environment));
  static const auto encoder = std::make_shared<lumora::VideoEncoder>(*configuration, platform);
  platform.stateQueue->async([] {
    try {
      encoder->start();
    } catch (const std::system_error&) {
      endWith(listenerFailed);
    }
  });
  for (;;) pause();
}
