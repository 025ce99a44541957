#pragma once

// Decides which frames of the helper go to the page, and when each is acknowledged to the helper.
// A frame that went to the page is acknowledged once the page has shown it, so that the helper does
// not send more than the page can show. But the helper drops a client that leaves a frame
// unacknowledged for half a second. So for a page that is slow, hidden or gone, frames are
// acknowledged in its place. Once it can show frames again, it gets them from the next key frame
// on. Makes no system calls; times are seconds of any one clock.

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

namespace lumora::viewer {

class FrameFlow {
 public:
  // How long a frame may wait to be shown, in seconds.
  static constexpr double patience = 0.25;

  // The helper is connected anew. The new connection knows nothing of earlier frames.
  void streamBegan();
  void pageJoined();
  void pageLeft();
  // Any message of the page: it is not stuck.
  void pageSpoke() { isResponding_ = true; }
  void setVisible(bool visible);
  // The page's decoder has restarted, and needs a key frame first.
  void pageRestarted();

  // Whether this frame goes to the page. If not, the caller acknowledges it at once.
  bool frameCame(std::uint64_t id, bool keyframe, double now);
  // The page is done with this frame and all before it. Returns what to acknowledge.
  std::optional<std::uint64_t> shown(std::uint64_t id);
  // What to acknowledge in the place of a page that is slow, hidden or gone.
  std::optional<std::uint64_t> acknowledgeOverdue(double now);

  // How many frames a visible page has missed since the last call. When the page has joined, or
  // its decoder has restarted, the count begins with the first frame that the page gets.
  std::uint64_t takeWithheld() { return std::exchange(withheld_, 0); }

 private:
  struct Forwarded {
    std::uint64_t id;
    double at;
  };
  bool canShow() const { return isResponding_ && isVisible_; }

  bool isResponding_ = false;  // false: no page, or no message from it since frames were overdue
  bool isVisible_ = true;
  bool needsKeyFrame_ = true;    // always true while the page can't show frames
  bool countsWithheld_ = false;  // the page got a frame since it joined or restarted
  std::deque<Forwarded> unseen_;
  std::uint64_t withheld_ = 0;
};

}  // namespace lumora::viewer
