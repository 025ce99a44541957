#include "tools/helper_process.h"

#include <csignal>

namespace lumora::tools {
HelperProcess::HelperProcess(const client::LaunchOptions& options) : ChildProcess(options) {
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  if (current.sa_handler == SIG_DFL) std::signal(SIGPIPE, SIG_IGN);
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
