#include "tools/viewer/frame_flow.h"

namespace lumora::viewer {

void FrameFlow::streamBegan() {
  unseen_.clear();
  needsKeyFrame_ = true;
}

void FrameFlow::pageJoined() {
  pageLeft();
  isResponding_ = true;
}

void FrameFlow::pageLeft() {
  // `unseen_` stays: `acknowledgeOverdue` acknowledges it at the next call.
  isResponding_ = false;
  isVisible_ = true;
  needsKeyFrame_ = true;
  countsWithheld_ = false;
  withheld_ = 0;
}

void FrameFlow::setVisible(bool visible) {
  isVisible_ = visible;
  if (!visible) needsKeyFrame_ = true;
}

void FrameFlow::pageRestarted() {
  needsKeyFrame_ = true;
  countsWithheld_ = false;  // the page is not slow: its decoder needs a key frame
}

bool FrameFlow::frameCame(std::uint64_t id, bool keyframe, double now) {
  if (keyframe && canShow()) needsKeyFrame_ = false;
  if (needsKeyFrame_) {
    if (countsWithheld_ && isVisible_) ++withheld_;
    unseen_.clear();  // the caller acknowledges this frame, and so all before it
    return false;
  }
  countsWithheld_ = true;
  unseen_.push_back({id, now});
  return true;
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
  isResponding_ = false;
  needsKeyFrame_ = true;
  const std::uint64_t newest = unseen_.back().id;
  unseen_.clear();
  return newest;
}

}  // namespace lumora::viewer
