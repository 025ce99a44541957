// Process entry: configuration, the one VideoEncoder, then the main thread parks for good.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <string_view>

#include "app/options.h"
#include "app/video_encoder.h"
#include "base/out_of_memory.h"
#include "base/process_heap.h"
#include "system/inherited_frame_memory.h"
#include "system/system_platform.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it undeclared

namespace {

// These lines stand before or beside the event channel, so they are literal bytes.
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

// A mask is inherited, and whoever started us may have had reasons for one.
void unblockSignals() {
  sigset_t ours;
  sigemptyset(&ours);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM}) sigaddset(&ours, signal);
  pthread_sigmask(SIG_UNBLOCK, &ours, nullptr);
}

void startService(const std::vector<std::string>& arguments,
                  const lumora::Environment& environment) {
  const auto configuration = lumora::options(arguments, environment);
  if (!configuration) endWith(invalidConfiguration);
  lumora::waitForMemory();
  lumora::keepFreedMemory();
  // Both live until the process ends: `exit` never runs their destructors.
  static lumora::Platform platform = lumora::makeSystemPlatform(encoderChoice(environment));
  if (const auto descriptor = configuration->frameMemoryDescriptor) {
    platform.frameMemory = lumora::inheritFrameMemory(*descriptor);
    if (!platform.frameMemory) endWith(invalidConfiguration);
  }
  static const auto service = std::make_shared<lumora::VideoEncoder>(*configuration, platform);
  platform.stateQueue->async([] {
    try {
      service->start();
    } catch (const std::exception&) {
      endWith(listenerFailed);
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGALRM, SIG_IGN);  // one that was set before us; ours comes with its handler
  std::signal(SIGXFSZ, SIG_IGN);  // a file too large is the take's failure
  unblockSignals();
  makeOutputNonBlocking();
  try {
    startService({argv + (argc > 0 ? 1 : 0), argv + argc}, readEnvironment());
  } catch (const std::exception&) {
    endWith(listenerFailed);
  }
  for (;;) pause();
}
