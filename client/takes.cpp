#include "client/takes.h"

#include <lumora/uptime.h>

#include <utility>

#include "client/descriptor.h"

namespace lumora::client {

void Takes::add(std::shared_ptr<Take::State> take) {
  const std::lock_guard hold(mutex_);
  if (ended_) return take->abandon(*ended_);
  const std::string id = take->latest().id;
  takes_[id] = std::move(take);
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

void Takes::awaitStopped(double seconds) const {
  const Deadline deadline(seconds);
  for (const auto& [id, take] : copy())
    if (take->stoppedAt()) take->waitForEnd(deadline.millisecondsLeft() / 1000.0);
}

void Takes::failUnanswered(double now) const {
  for (const auto& [id, take] : copy()) {
    if (!take->isUnanswered(now)) continue;
    take->stop(uptime());  // if only its answer was lost, it runs
    take->abandon("the helper did not answer");
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
  for (const auto& [id, take] : unfinished) take->abandon(reason);
}

}  // namespace lumora::client
