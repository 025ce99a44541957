#include "client/takes.h"

#include "client/descriptor.h"

namespace lumora::client {

void Takes::add(const std::shared_ptr<Take::State>& take) {
  std::optional<std::string> ended;
  {
    const std::lock_guard hold(mutex_);
    ended = ended_;
    if (!ended) takes_[take->latest().id] = take;
  }
  if (ended)
    take->abandon(TakeFailure::helperEnded,
                  *ended);  // unlocked, because the take's handler may start another take
}

void Takes::report(const Recording& recording) {
  std::shared_ptr<Take::State> take;
  {
    const std::lock_guard hold(mutex_);
    const auto found = takes_.find(recording.id);
    if (found == takes_.end()) return;
    take = found->second;
    if (recording.isOver()) takes_.erase(found);
  }
  take->report(recording);
}

void Takes::awaitStopped(Seconds limit) const {
  const Deadline deadline(limit);
  for (const auto& [id, take] : copy())
    if (take->stoppedAt()) static_cast<void>(take->waitForEnd(deadline.left()));
}

void Takes::failUnanswered(Uptime::time_point now) {
  for (const auto& [id, take] : copy()) {
    if (!take->isUnanswered(now)) continue;
    {
      const std::lock_guard hold(mutex_);
      takes_.erase(id);
    }
    take->stop(Uptime::now());  // the helper may record the take although its answer was lost
    take->abandon(TakeFailure::noAnswer, "the helper did not answer");
  }
}

Takes::All Takes::copy() const {
  const std::lock_guard hold(mutex_);
  return takes_;
}

void Takes::abandonAll(const std::string& reason) {
  All unfinished;
  {
    const std::lock_guard hold(mutex_);
    ended_ = reason;
    unfinished.swap(takes_);
  }
  for (const auto& [id, take] : unfinished) take->abandon(TakeFailure::helperEnded, reason);
}

}  // namespace lumora::client
