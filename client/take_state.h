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

  State(Recording asked, double startedAt, Send send)
      : send_(std::move(send)), startedAt_(startedAt), latest_(std::move(asked)) {}

  void stop(double stoppedAt);
  // An event about it; nothing after its end counts.
  void report(const Recording& recording);
  // Its helper has ended, for this reason.
  void abandon(const std::string& reason);

  double startedAt() const { return startedAt_; }
  std::optional<double> stoppedAt() const;
  Recording latest() const;
  std::optional<Recording> waitForEnd(double seconds) const;

 private:
  const Send send_;
  const double startedAt_;
  mutable std::mutex mutex_;  // guards the rest
  mutable std::condition_variable changed_;
  Recording latest_;
  std::optional<double> stoppedAt_;
};

}  // namespace lumora::client
