// Process entry. The main thread reads the configuration, creates the one VideoEncoder and then
// sleeps until the process ends.

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

// The event lines of a failed launch. They are constants because the service, which makes event
// lines, may not exist yet.
constexpr std::string_view invalidConfiguration =
    "{\"type\":\"error\",\"message\":\"invalid helper configuration\"}\n";
constexpr std::string_view listenerFailed =
    "{\"type\":\"error\",\"message\":\"video listener initialization failed\"}\n";

[[noreturn]] void endWith(std::string_view line) {
  // A parent that does not get the line still gets the exit status.
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

// We inherit the signal mask, so the parent may have blocked the signals that we handle.
void unblockSignals() {
  sigset_t ours;
  sigemptyset(&ours);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGABRT}) sigaddset(&ours, signal);
  pthread_sigmask(SIG_UNBLOCK, &ours, nullptr);
}

void startService(const std::vector<std::string>& arguments,
                  const lumora::Environment& environment) {
  const auto configuration = lumora::options(arguments, environment);
  if (!configuration) endWith(invalidConfiguration);
  lumora::waitForMemory();
  lumora::keepFreedMemory();
  // `platform` and `service` are static, so that they live until `_exit` ends the process.
  static lumora::Platform platform =
      lumora::makeSystemPlatform(configuration->h264Encoder, configuration->frameFormat.pixels);
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
  std::signal(SIGALRM, SIG_IGN);  // until the watchdog is armed: an inherited timer must not end us
  std::signal(SIGXFSZ, SIG_IGN);  // a file that is too large fails the take, not the process
  unblockSignals();
  makeOutputNonBlocking();
  try {
    startService({argv + (argc > 0 ? 1 : 0), argv + argc}, readEnvironment());
  } catch (const std::exception&) {
    endWith(listenerFailed);
  }
  for (;;) pause();
}
