#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "client/take_state.h"

namespace lumora::client {

// The takes of one helper that have not ended. Any thread.
class Takes {
 public:
  // Fails the take at once if the helper has ended already.
  void add(const std::shared_ptr<Take::State>& take);
  // Passes an event on to its take.
  void report(const Recording& recording);
  // Waits until the takes that were told to stop have ended.
  void awaitStopped(Seconds limit) const;
  // Stops and fails the takes that the helper has not answered in time.
  void failUnanswered(Uptime::time_point now);
  // Fails all takes, because the helper has ended.
  void abandonAll(const std::string& reason);

 private:
  using All = std::map<std::string, std::shared_ptr<Take::State>>;  // by id

  All copy() const;

  mutable std::mutex mutex_;  // guards all below
  All takes_;
  std::optional<std::string> ended_;  // how the helper has ended; empty: it has not
};

}  // namespace lumora::client
