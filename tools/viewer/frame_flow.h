#pragma once

// Decides what of the helper's stream goes to the page, and what the helper hears of it. The eye
// sets the pace: a frame is acknowledged when it was shown. But a page that is slow, hidden or gone
// must not cost the connection: well before the helper gives up on us, frames are acknowledged
// unseen, and the page gets nothing until the next key frame. Pure; times are seconds of any one
// clock.

#include <cstdint>
#include <deque>
#include <optional>

namespace lumora::viewer {

class FrameFlow {
 public:
  static constexpr double patience = 0.25;  // seconds; the helper's own is 0.5

  // A new connection to the helper: it knows nothing of frames before.
  void streamBegan();
  void pageJoined();
  void pageLeft();
  void pageSpoke() { givenUp_ = false; }  // in whatever words: it is alive
  void setVisible(bool visible);
  // Its decoder begins anew. Frames before the next key frame are of no use to it.
  void pageRestarted();

  struct Decision {
    bool forward = false;
    std::optional<std::uint64_t> acknowledge = {};  // to the helper, at once
  };
  // For a frame that has come from the helper.
  Decision frameCame(std::uint64_t id, bool keyframe, double now);
  // The page has shown this frame, or a newer one in its place: what to acknowledge.
  std::optional<std::uint64_t> shown(std::uint64_t id);
  // Frames have waited for too long: what to acknowledge in the page's place.
  std::optional<std::uint64_t> acknowledgeOverdue(double now);

  // Frames withheld from a page that was there, since the last call.
  std::uint64_t takeWithheld();

 private:
  struct Forwarded {
    std::uint64_t id;
    double at;
  };
  bool canShow() const { return joined_ && visible_ && !givenUp_; }

  bool joined_ = false;
  bool visible_ = true;
  bool givenUp_ = false;         // nothing was heard of it since it was given up on
  bool needsKeyFrame_ = true;    // for a key frame
  bool countsWithheld_ = false;  // it has been sent a frame
  std::deque<Forwarded> unseen_;
  std::uint64_t withheld_ = 0;
};

}  // namespace lumora::viewer
