#pragma once

// Where the samples of a take lie in its track. Pure.
//
// The track begins with the movie. Each sample shall lie within 10 ms of the time at which it was
// captured, however long the take is. `DeviceClock` tells when each record was captured. The length
// of the track tells where the record would lie if it were simply appended. The difference between
// the two is removed in one of two ways:
//
// - Following: the resampler adds or removes a few samples, at most 550 ppm. This compensation
//   makes up for the device's drift, and removes most of any other difference within some ten
//   seconds. A drift of 500 ppm leaves only 50 ppm for the other difference, which then takes
//   longer. The compensation changes slowly, so that nobody hears the change.
// - Aligning: silence is inserted or samples are cut, exact to a sample. The track's beginning is
//   aligned. Later, a record is aligned only if the difference is above 10 ms: the device stopped,
//   records were lost or a clock jumped. Each later alignment counts as a gap, even if it cuts.
//
// The track's length is measured: the resampler's real output, and what the resampler still holds.
// So the resampler's rounding errors are part of the next difference. They never add up, and this
// file needs no model of the resampler.
//
// While a device is silent, the track is filled with silence up to a few seconds before now. So
// when the device goes on, or the movie ends, little is left to fill in one go.
//
// Silence is inserted, and samples are cut, in the resampler's input. So the samples that the
// resampler still holds come out before the silence or the cut.

#include <cstdint>
#include <vector>

#include "sound/sound_record.h"

namespace lumora {

// What to do with a record before the resampler gets it.
struct SoundPlacement {
  std::int64_t silence = 0;  // samples to insert before it, after those of `fillBefore`
  std::int64_t cut = 0;      // samples to cut from its front: at most all
  int compensation = 0;      // by how many ppm the resampler makes the sound longer
};

// Places the sound of one take. Only called on the take's queue. All times are uptime seconds.
class SoundPlacing {
 public:
  // For sound of this rate, in a movie that starts at this time.
  SoundPlacing(int rate, double start) : rate_(rate), start_(start), settledUntil_(start) {}

  // Returns what to do with the next record of `DeviceClock`. Once the end of the movie is known,
  // call this only for records that begin before it. `length` is the length of the track in
  // seconds, including what the resampler still holds.
  SoundPlacement place(const SoundRecord& record, double length);
  // Call this before `place`, with the same record, until it returns 0. Returns the samples of
  // silence that fill a gap in front of the record, at most `most` seconds. Silence is encoded in
  // pieces, so that pictures never wait long.
  std::int64_t fillBefore(const SoundRecord& record, double most, double length);
  // For a device that is silent: the samples of silence that the track needs to reach `until`.
  std::int64_t fill(double until, double length);

  // Until when records came, or silence was filled in. After its stop, a take waits until this time
  // reaches the end of the take.
  double settledUntil() const { return settledUntil_; }
  // For a movie that ends at `end`: how many gaps begin in it, and for how many of its seconds no
  // record came.
  std::int64_t gaps(double end) const;
  double missing(double end) const;

 private:
  struct Silence {
    double from, until;
  };

  void beginAligning(double length);
  void insert(std::int64_t silence);
  void align(double late, const SoundRecord& record, SoundPlacement& placement);

  int rate_;
  double start_;
  double settledUntil_;
  std::vector<Silence> silences_ = {{start_, start_}};  // of the beginning, then of each gap
  bool isAligning_ = true;                              // until samples lie where they belong
  double compensation_ = 0;                             // of the resampler: 1e-6 is 1 ppm longer
};

}  // namespace lumora
