#include "record/frame_log.h"

#include <algorithm>
#include <utility>

namespace lumora {
namespace {

const char* textOf(FrameOutcome outcome) {
  // In the order of the enumerators.
  constexpr const char* texts[] = {
      "written", "throttled",   "before start", "after stop", "waiting for key frame",
      "busy",    "undecodable", "encoder",      "disk"};
  return texts[static_cast<std::size_t>(outcome)];
}

}  // namespace

void FrameLog::note(const ReadFrame& frame, std::optional<FrameOutcome> outcome) {
  const std::lock_guard hold(mutex_);
  if (hasEnded_) return;
  hasEnded_ = isIncomplete_ = entries_.size() == mostFrames;
  if (!hasEnded_) entries_.push_back({frame, outcome});
}

void FrameLog::settle(std::uint64_t id, FrameOutcome outcome, std::optional<double> movieTime) {
  const std::lock_guard hold(mutex_);
  const auto idOf = [](const Entry& entry) { return entry.frame.id; };
  const auto entry = std::ranges::lower_bound(entries_, id, {}, idOf);
  if (entry == entries_.end() || idOf(*entry) != id || entry->outcome) return;
  entry->outcome = outcome;
  entry->movieTime = movieTime;
}

void FrameLog::end(FrameOutcome rest) {
  const std::lock_guard hold(mutex_);
  hasEnded_ = true;
  for (Entry& entry : entries_) entry.outcome = entry.outcome.value_or(rest);
}

void FrameLog::giveUp() {
  const std::lock_guard hold(mutex_);
  isIncomplete_ = isIncomplete_ || !hasEnded_;
  hasEnded_ = true;
}

std::string FrameLog::takeLines() {
  const std::lock_guard hold(mutex_);
  std::string lines;
  if (!std::exchange(hasHeader_, true)) lines = "id,captured,movie_time,outcome\n";
  for (; !entries_.empty() && entries_.front().outcome; entries_.pop_front())
    lines += lineOf(entries_.front());
  return lines;
}

bool FrameLog::isIncomplete() const {
  const std::lock_guard hold(mutex_);
  return isIncomplete_;
}

// `std::to_string` writes six decimals. They tell all movie times apart, since a movie unit is 17
// microseconds.
std::string FrameLog::lineOf(const Entry& entry) {
  const auto& [frame, outcome, movieTime] = entry;
  return std::to_string(frame.id) + "," + std::to_string(frame.capturedAt) + "," +
         (movieTime ? std::to_string(*movieTime) : "") + "," + textOf(*outcome) + "\n";
}

}  // namespace lumora
