#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "client/child_process.h"

namespace lumora::tests {

using Event = nlohmann::json;

// The helper as a plain child process: records go in, events come out as JSON. Tests use it for
// what `client::Helper` never does. Throws Event::parse_error for a line that is not JSON.
struct HelperProcess : client::ChildProcess {
  using ChildProcess::ChildProcess;

  bool writeCommand(const Event& command) {
    const std::string record = client::commandRecord(command.dump());
    return writeBytes({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
  }
  // The next event; empty when none came in time or the output has ended.
  std::optional<Event> nextEvent(double timeoutSeconds) {
    if (const auto line = nextLine(timeoutSeconds)) return Event::parse(*line);
    return std::nullopt;
  }
  // The next event of this "type" that is `wanted`. Throws std::runtime_error when none has come
  // within 20 seconds or the output ends.
  using Wanted = std::function<bool(const Event&)>;
  Event waitForEvent(
      const std::string& type, const Wanted& wanted = [](const Event&) { return true; }) {
    const client::Deadline deadline(20);
    while (const auto event = nextEvent(deadline.millisecondsLeft() / 1000.0))
      if (event->at("type") == type && wanted(*event)) return *event;
    throw std::runtime_error("no awaited \"" + type + "\" event");
  }
};

}  // namespace lumora::tests
