#pragma once

// Where the samples of a take lie in its track. Pure.
//
// The track begins with the movie. Each sample shall lie where it was captured, within 10 ms, from
// the beginning to the end, however long the take is. `DeviceClock` tells when each record was
// captured. The track tells where the record would lie if it were just appended. The difference is
// removed in one of two ways:
//
// - Following: the resampler gains or loses a few samples. That takes up the drift of the device,
//   and within some ten seconds what else is left. It is at most 550 ppm: 500 for the drift, the
//   rest so that a difference shrinks beside it. It changes slowly, so that nobody hears it.
// - Aligning: silence is inserted or samples are cut, to the sample. The beginning of the track is
//   aligned. Later that is done when the difference is above 10 ms, because the device stopped,
//   records were lost or a clock jumped. Each such time is a gap.
//
// The resampler's real output closes the loop: what it rounds is part of the next difference. So
// errors never add up, and this file needs no model of the resampler.
//
// While a device is silent, the track is filled a little behind the pictures. So when it goes on,
// or the movie ends, little is left to fill at once.
//
// Silence and cuts are samples of the device, before the resampler. So what it still holds stays in
// front of them.

#include <cstdint>

#include "sound/sound_record.h"

namespace lumora {

// What to do with a record before the resampler gets it.
struct SoundPlacement {
  std::int64_t silence = 0;  // samples to insert before it: as many as the gap has
  std::int64_t cut = 0;      // samples to cut from its front: at most all
  int gain = 0;              // samples that a million of the resampler's output has more or less
};

// Places the sound of one take. Its queue only. All times are uptime seconds.
class SoundPlacing {
 public:
  static constexpr double largestDifference = 0.01;  // seconds

  // For sound of this rate, in a movie that starts at this time.
  SoundPlacing(int rate, double start) : rate_(rate), start_(start), heardUntil_(start) {}

  // For the next record of `DeviceClock`, if it begins before the end of the movie. `length`: that
  // of the track in seconds, with what the resampler still holds.
  SoundPlacement place(const SoundRecord& record, double length);
  // For a device that is silent: the samples of silence that the track needs to reach `until`.
  std::int64_t fill(double until, double length);

  int gaps() const { return gaps_; }
  // Until when records came. A take that stops waits until this reaches its end.
  double heardUntil() const { return heardUntil_; }
  // The samples of a track of this rate that ends at `end`.
  std::int64_t trackSamples(double end, int trackRate) const;
  // Seconds of the movie for which no record came.
  double missing(double end) const;

 private:
  void beginAligning();
  void align(double late, const SoundRecord& record, SoundPlacement& placement);

  int rate_;
  double start_;
  double heardUntil_;
  double missing_ = 0;          // before `heardUntil_`
  double filledFrom_ = start_;  // the latest silence that `fill` has made
  double filledUntil_ = start_;
  bool isAligning_ = true;   // until samples lie where they belong
  double compensation_ = 0;  // of the resampler: 1e-6 is 1 ppm longer
  int gaps_ = 0;
};

}  // namespace lumora
