#pragma once

// The helper as our own programs and tests drive it: plain commands, events as they stand. An
// application has `client::Helper`.

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "client/child_process.h"

namespace lumora::tools {

using Event = nlohmann::json;

class HelperProcess : public client::ChildProcess {
 public:
  // Ignores SIGPIPE in the whole process unless it is handled, so that a helper that ended shows as
  // a failed write.
  explicit HelperProcess(const client::LaunchOptions& options);

  // Blocks as the other writes do.
  bool writeCommand(const Event& command);
  // The next event, or nothing when none came in time, the output ended or a line is not JSON.
  std::optional<Event> nextEvent(double timeoutSeconds);
  // The next event of this "type", skipping others.
  std::optional<Event> nextEvent(const std::string& type, double timeoutSeconds);
};

}  // namespace lumora::tools
