#include <lumora/take.h>
#include <lumora/uptime.h>

#include <chrono>
#include <utility>

#include "client/take_command.h"
#include "client/take_state.h"

namespace lumora::client {

void Take::State::stop(double stoppedAt) {
  std::string id;
  {
    const std::lock_guard hold(mutex_);
    if (std::exchange(stopped_, true) || latest_.isOver()) return;
    id = latest_.id;
  }
  send_(stopCommand(id, stoppedAt));
}

void Take::State::report(const Recording& recording) {
  const std::lock_guard hold(mutex_);
  if (latest_.isOver()) return;
  latest_ = recording;
  changed_.notify_all();
}

void Take::State::abandon(const std::string& reason) {
  Recording end = latest();
  end.state = TakeState::failed;
  end.error = reason;
  report(end);
}

Recording Take::State::latest() const {
  const std::lock_guard hold(mutex_);
  return latest_;
}

std::optional<Recording> Take::State::waitForEnd(double seconds) const {
  std::unique_lock hold(mutex_);
  if (!changed_.wait_for(hold, std::chrono::duration<double>(seconds),
                         [this] { return latest_.isOver(); })) {
    return std::nullopt;
  }
  return latest_;
}

Take::Take(std::string id, std::string path, std::shared_ptr<State> state)
    : id_(std::move(id)), path_(std::move(path)), state_(std::move(state)) {}

std::string Take::stagingPath() const { return path_ + "." + id_ + ".partial"; }

void Take::stop(std::optional<double> stoppedAt) { state_->stop(stoppedAt.value_or(uptime())); }

Recording Take::latest() const { return state_->latest(); }

std::optional<Recording> Take::waitForEnd(double seconds) const {
  return state_->waitForEnd(seconds);
}

}  // namespace lumora::client
