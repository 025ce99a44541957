#include "tools/viewer/frame_flow.h"

#include <utility>

namespace lumora::viewer {

void FrameFlow::streamBegan() {
  unseen_.clear();
  needsKeyFrame_ = true;
}

void FrameFlow::pageJoined() {
  pageLeft();
  joined_ = true;
}

void FrameFlow::pageLeft() {
  // What it has not shown yet is overdue at once: see `acknowledgeOverdue`.
  joined_ = false;
  visible_ = true;
  givenUp_ = false;
  needsKeyFrame_ = true;
  countsWithheld_ = false;
  withheld_ = 0;
}

void FrameFlow::setVisible(bool visible) {
  visible_ = visible;
  if (!visible) needsKeyFrame_ = true;
}

void FrameFlow::pageRestarted() {
  needsKeyFrame_ = true;
  countsWithheld_ = false;  // what it gets from now on is not withheld for being slow
}

FrameFlow::Decision FrameFlow::frameCame(std::uint64_t id, bool keyframe, double now) {
  if (keyframe && canShow()) needsKeyFrame_ = false;
  if (!canShow() || needsKeyFrame_) {
    if (countsWithheld_ && visible_) ++withheld_;
    unseen_.clear();
    return {false, id};
  }
  countsWithheld_ = true;
  unseen_.push_back({id, now});
  return {true};
}

std::optional<std::uint64_t> FrameFlow::shown(std::uint64_t id) {
  std::optional<std::uint64_t> newest;
  while (!unseen_.empty() && unseen_.front().id <= id) {
    newest = unseen_.front().id;
    unseen_.pop_front();
  }
  return newest;
}

std::optional<std::uint64_t> FrameFlow::acknowledgeOverdue(double now) {
  if (unseen_.empty() || (canShow() && now - unseen_.front().at <= patience)) return std::nullopt;
  givenUp_ = true;
  needsKeyFrame_ = true;
  const std::uint64_t newest = unseen_.back().id;
  unseen_.clear();
  return newest;
}

std::uint64_t FrameFlow::takeWithheld() { return std::exchange(withheld_, 0); }

}  // namespace lumora::viewer
