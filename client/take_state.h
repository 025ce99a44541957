#pragma once

#include <lumora/take.h>
#include <lumora/uptime.h>

#include <condition_variable>
#include <functional>
#include <mutex>

namespace lumora::client {

// The state of a take, shared by the copies of `Take` and by its helper. Any thread.
class Take::State {
 public:
  using Send = std::function<void(const std::string& command)>;  // JSON text

  State(Recording asked, double startedAt, Send send)
      : send_(std::move(send)), startedAt_(startedAt), latest_(std::move(asked)) {}

  void stop(double stoppedAt);
  // An event about the take; ignored once the take is over.
  void report(const Recording& recording);
  // Fails the take, because its helper has ended or does not answer.
  void abandon(const std::string& reason);

  // Whether nothing was heard of the take by `now`, long after it was asked for.
  bool isUnanswered(double now) const;
  double startedAt() const { return startedAt_; }
  std::optional<double> stoppedAt() const;
  Recording latest() const;
  std::optional<Recording> waitForEnd(double seconds) const;

 private:
  const Send send_;
  const double startedAt_;
  const double askedAt_ = uptime();
  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable changed_;
  Recording latest_;
  bool isAnswered_ = false;
  std::optional<double> stoppedAt_;
};

}  // namespace lumora::client
