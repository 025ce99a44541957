#include <lumora/take.h>
#include <lumora/uptime.h>

#include <stdexcept>
#include <utility>

#include "client/descriptor.h"
#include "client/take_command.h"
#include "client/take_state.h"

namespace lumora::client {
namespace {

// A living helper answers at once. But it drops an answer that its parent does not read in time.
constexpr double secondsToAnswer = 10;

}  // namespace

void Take::State::stop(double stoppedAt) {
  std::string command;
  {
    const std::lock_guard hold(mutex_);
    if (stoppedAt_ || latest_.isOver()) return;
    command = stopCommand(latest_.id, stoppedAt);
    if (stoppedAt < startedAt_) throw std::invalid_argument("a take can't stop before it starts");
    stoppedAt_ = stoppedAt;
  }
  send_(command);
}

std::optional<double> Take::State::stoppedAt() const {
  const std::lock_guard hold(mutex_);
  return stoppedAt_;
}

void Take::State::report(const Recording& recording) {
  const std::lock_guard hold(mutex_);
  if (latest_.isOver()) return;
  latest_ = recording;
  isAnswered_ = true;
  changed_.notify_all();
}

void Take::State::abandon(const std::string& reason) {
  Recording end = latest();
  end.state = TakeState::failed;
  end.error = reason;
  report(end);
}

bool Take::State::isUnanswered(double now) const {
  const std::lock_guard hold(mutex_);
  return !isAnswered_ && now - askedAt_ > secondsToAnswer;
}

Recording Take::State::latest() const {
  const std::lock_guard hold(mutex_);
  return latest_;
}

std::optional<Recording> Take::State::waitForEnd(double seconds) const {
  std::unique_lock hold(mutex_);
  const auto isOver = [this] { return latest_.isOver(); };
  if (!changed_.wait_until(hold, Deadline(seconds).time(), isOver)) return std::nullopt;
  return latest_;
}

Take::Take(std::string id, std::string path, std::shared_ptr<State> state)
    : id_(std::move(id)), path_(std::move(path)), state_(std::move(state)) {}

std::string Take::stagingPath() const { return path_ + "." + id_ + ".partial"; }

void Take::stop(std::optional<double> stoppedAt) { state_->stop(stoppedAt.value_or(uptime())); }

double Take::startedAt() const { return state_->startedAt(); }

std::optional<double> Take::stoppedAt() const { return state_->stoppedAt(); }

Recording Take::latest() const { return state_->latest(); }

std::optional<Recording> Take::waitForEnd(double seconds) const {
  return state_->waitForEnd(seconds);
}

}  // namespace lumora::client
