#pragma once

#include <lumora/take.h>

#include <condition_variable>
#include <functional>
#include <mutex>

namespace lumora::client {

// What a take's handle and its helper share. Any thread.
class Take::State {
 public:
  using Send = std::function<void(const std::string& command)>;  // JSON text

  State(Recording asked, Send send) : send_(std::move(send)), latest_(std::move(asked)) {}

  void stop(double stoppedAt);
  // An event about it; nothing after its end counts.
  void report(const Recording& recording);
  // Its helper has ended, for this reason.
  void abandon(const std::string& reason);

  Recording latest() const;
  std::optional<Recording> waitForEnd(double seconds) const;

 private:
  const Send send_;
  mutable std::mutex mutex_;  // guards the rest
  mutable std::condition_variable changed_;
  Recording latest_;
  bool stopped_ = false;
};

}  // namespace lumora::client
