#include "tools/helper_process.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "client/frame_loan.h"

namespace lumora::tools {

bool sharesFrames(bool otherwise) {
  const char* value = std::getenv("FRAMES");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  const std::string_view way = value == nullptr ? "" : value;
  if (way.empty()) return otherwise;
  if (way != "memory" && way != "pipe")
    throw std::runtime_error("FRAMES is neither memory nor pipe");
  return way == "memory";
}

HelperProcess::HelperProcess(const client::LaunchOptions& options)
    : ChildProcess(options), memory_(options.frameMemory) {
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  if (current.sa_handler == SIG_DFL) std::signal(SIGPIPE, SIG_IGN);
}

bool HelperProcess::writeFrame(client::FrameSize size, std::uint64_t id,
                               std::span<const std::uint8_t> rgba) {
  if (!memory_) return ChildProcess::writeFrame(size, id, rgba);
  const client::Deadline deadline(20);
  auto slot = memory_->acquire();
  while (!slot && deadline.millisecondsLeft() > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    slot = memory_->acquire();
  }
  if (!slot) return false;
  std::memcpy(slot->pixels(), rgba.data(), rgba.size());
  if (!writeReference(size, id, *slot->offset())) return false;
  slot->published(id);
  return true;
}

bool HelperProcess::writeCommand(const Event& command) {
  const std::string record = client::commandRecord(command.dump());
  return writeBytes({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
}

std::optional<Event> HelperProcess::nextEvent(double timeoutSeconds) {
  const auto line = nextLine(timeoutSeconds);
  if (!line) return std::nullopt;
  Event event = Event::parse(*line, nullptr, /*allow_exceptions=*/false);
  if (event.is_discarded()) return std::nullopt;
  return event;
}

std::optional<Event> HelperProcess::nextEvent(const std::string& type, double timeoutSeconds) {
  const client::Deadline deadline(timeoutSeconds);
  for (;;) {
    auto event = nextEvent(deadline.millisecondsLeft() / 1000.0);
    if (!event || event->value("type", "") == type) return event;
  }
}

}  // namespace lumora::tools
