#pragma once

#include <lumora/take.h>

#include <condition_variable>
#include <functional>
#include <mutex>

namespace lumora::client {

// The state of a take, shared by the copies of `Take` and by its helper. Any thread.
class Take::State {
 public:
  using Send = std::function<void(const std::string& command)>;  // JSON text

  State(Recording asked, Uptime::time_point startedAt, Send send, EventHandler onEvent = {})
      : send_(std::move(send)),
        startedAt_(startedAt),
        latest_(std::move(asked)),
        onEvent_(std::move(onEvent)) {}

  void stop(Uptime::time_point stoppedAt);
  // Stores an event about the take and calls the handler. Does nothing once the take is over.
  void report(const Recording& recording);
  // Fails the take, because its helper has ended or does not answer.
  void abandon(TakeFailure failure, const std::string& reason);

  // True if `now` is over 10 s after the start command, and no event about the take has come.
  bool isUnanswered(Uptime::time_point now) const;
  Uptime::time_point startedAt() const { return startedAt_; }
  std::optional<Uptime::time_point> stoppedAt() const;
  Recording latest() const;
  std::optional<Recording> waitForEnd(Seconds limit) const;

 private:
  const Send send_;
  const Uptime::time_point startedAt_;
  const Uptime::time_point askedAt_ = Uptime::now();
  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable changed_;
  Recording latest_;
  EventHandler onEvent_;  // until the take is over
  bool isAnswered_ = false;
  std::optional<Uptime::time_point> stoppedAt_;
};

}  // namespace lumora::client
