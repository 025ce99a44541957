#include <lumora/take.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "client/descriptor.h"
#include "client/take_command.h"
#include "client/take_state.h"

namespace lumora::client {
namespace {

// How long a take waits for the answer to its start. A living helper answers at once, but it drops
// the answer if its output pipe is full.
constexpr Seconds timeToAnswer(10);

// In the order of the enumerators.
constexpr std::array<std::string_view, 3> takeSizes = {"640x360", "1080x720", "1920x1080"};

}  // namespace

std::string toText(TakeSize size) {
  const auto index = static_cast<std::size_t>(size);
  return index < takeSizes.size() ? std::string(takeSizes[index]) : "";
}

std::optional<TakeSize> parseTakeSize(std::string_view text) {
  const auto found = std::ranges::find(takeSizes, text);
  if (found == takeSizes.end()) return std::nullopt;
  return static_cast<TakeSize>(found - takeSizes.begin());
}

void Take::State::stop(Uptime::time_point stoppedAt) {
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

std::optional<Uptime::time_point> Take::State::stoppedAt() const {
  const std::lock_guard hold(mutex_);
  return stoppedAt_;
}

void Take::State::report(const Recording& recording) {
  EventHandler onEvent;
  {
    const std::lock_guard hold(mutex_);
    if (latest_.isOver()) return;
    latest_ = recording;
    isAnswered_ = true;
    onEvent = onEvent_;
    if (recording.isOver()) onEvent_ = {};  // breaks a cycle: the handler may own this take
    changed_.notify_all();
  }
  if (onEvent) onEvent(recording);
}

void Take::State::abandon(TakeFailure failure, const std::string& reason) {
  Recording end = latest();
  end.state = TakeState::failed;
  end.failure = failure;
  end.error = reason;
  report(end);
}

bool Take::State::isUnanswered(Uptime::time_point now) const {
  const std::lock_guard hold(mutex_);
  return !isAnswered_ && now - askedAt_ > timeToAnswer;
}

Recording Take::State::latest() const {
  const std::lock_guard hold(mutex_);
  return latest_;
}

std::optional<Recording> Take::State::waitForEnd(Seconds limit) const {
  std::unique_lock hold(mutex_);
  const auto isOver = [this] { return latest_.isOver(); };
  if (!changed_.wait_until(hold, Deadline(limit).time(), isOver)) return std::nullopt;
  return latest_;
}

Take::Take(std::string id, std::filesystem::path path, std::shared_ptr<State> state)
    : id_(std::move(id)), path_(std::move(path)), state_(std::move(state)) {}

std::filesystem::path Take::stagingPath() const { return path_.string() + "." + id_ + ".partial"; }

void Take::stop(std::optional<Uptime::time_point> stoppedAt) {
  // The take may start a little after now.
  state_->stop(stoppedAt.value_or(std::max(Uptime::now(), startedAt())));
}

Uptime::time_point Take::startedAt() const { return state_->startedAt(); }

std::optional<Uptime::time_point> Take::stoppedAt() const { return state_->stoppedAt(); }

Recording Take::latest() const { return state_->latest(); }

std::optional<Recording> Take::waitForEnd(Seconds limit) const { return state_->waitForEnd(limit); }

}  // namespace lumora::client
