#pragma once

// The parent's side of the helper: starts it, feeds its standard input, reads its events, learns
// how it ended. One thread may write while another reads events.

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/descriptor.h"
#include "client/records.h"

namespace lumora::client {

using Event = nlohmann::json;

struct LaunchOptions {
  std::string program;                 // path of the helper, or a name on the PATH
  std::string token;                   // 16 to 128 of A-Z a-z 0-9 _ -; empty: none is passed
  std::vector<std::string> arguments;  // "--port", "0", ...
  std::map<std::string, std::string> environment;  // on top of our own
};

struct ExitStatus {
  int code = 0;        // when it ended by itself
  int signal = 0;      // else the signal that ended it
  rusage resources{};  // what its whole life took
};

// A token for one run, from the system's random source.
std::string makeToken();

class HelperProcess {
 public:
  // Starts the helper with its standard input and output on pipes. Throws std::system_error.
  // Ignores SIGPIPE in the whole process unless it is handled, so that a helper that ended shows
  // as a failed write.
  explicit HelperProcess(const LaunchOptions& options);
  // Kills the helper if it still runs.
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  // The writes block until the helper has taken all bytes; false when it no longer reads.
  bool writeFrame(FrameSize size, std::uint64_t id, std::span<const std::uint8_t> rgba);
  bool writeCommand(const Event& command);
  bool writeBytes(std::span<const std::uint8_t> bytes);
  void closeInput() { input_.reset(); }

  // The next event, or nothing when none came in time, the output ended or a line is not JSON.
  std::optional<Event> nextEvent(double timeoutSeconds);
  // The next event of this "type", skipping others.
  std::optional<Event> nextEvent(const std::string& type, double timeoutSeconds);
  // The next line as it stands, without its line feed.
  std::optional<std::string> nextLine(double timeoutSeconds);
  void closeOutput() { output_.reset(); }

  void sendSignal(int signal) const;
  // How it ended, or nothing when it still runs after `timeoutSeconds`.
  std::optional<ExitStatus> wait(double timeoutSeconds);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  Descriptor input_;   // its standard input
  Descriptor output_;  // its standard output
  std::string pending_;
  std::optional<ExitStatus> status_;
};

}  // namespace lumora::client
