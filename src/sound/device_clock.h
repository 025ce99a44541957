#pragma once

// When the samples of a device were captured. The parent's times are off by some milliseconds, each
// by another error. A Kalman filter finds the line through them: when the next sample is captured,
// and how much slower than its nominal rate the device is.
//
// A time off the line is at first no reason to leave it: the parent may have read that record late,
// and the next times are on the line again. So such records are held. If four of them and 50 ms are
// off by about the same, samples were lost or a clock jumped, and the line starts again there.
//
// A parent that looks for records at intervals gets them late by another time each, up to about a
// record's length. While times scatter like that, and at first, those that are off by less than
// most of a record count as on the line. Then the line starts again only after they were on one
// side of it for a second and ten records, those on the other side and those close to it taken
// away.

#include <cstddef>
#include <vector>

#include "sound/sound_record.h"

namespace lumora {

// The clock of one device. One thread.
class DeviceClock {
 public:
  explicit DeviceClock(int rate) : rate_(rate) {}

  // Takes the next record. Returns those whose times are certain now, in order and with smoothed
  // times: mostly just this one. Holds records whose stated times differ by less than 0.6 s,
  // and about two seconds of sound at most.
  std::vector<SoundRecord> add(SoundRecord record);
  // Returns the records that it holds, because none come for a while or no more come.
  std::vector<SoundRecord> flush();

 private:
  static constexpr double leastJitter = 9e-6;  // variance, of 3 ms

  struct Deviation {
    std::ptrdiff_t records = 0;  // the last ones of `held_`
    double least = 0;            // seconds off the line
    double most = 0;
  };

  void startAt(double time);
  void correct(double late, double seconds);
  void followStep(double late, double seconds);
  void advance(double seconds);
  double usualLateness(double seconds) const;
  void deviate(double late);
  bool hasJumped() const;
  bool isDoubtedTooLong(double statedTime) const;
  void jump();

  int rate_;
  bool isStarted_ = false;
  double next_ = 0;  // uptime of the next sample, in seconds
  double drift_ = 0;
  double timeVariance_ = 0;  // of the errors of `next_` and `drift_`
  double driftVariance_ = 0;
  double covariance_ = 0;
  double jitter_ = leastJitter;  // variance of the errors of the parent's times
  double scatter_ = 0.02;        // the most seconds by which lateness changed at once; it fades
  double late_ = 0;              // seconds by which the latest time on the line came after it
  double aside_ = 0;        // seconds for which times were on one side of the line; below 0: early
  double steadyDrift_ = 0;  // `drift_` before they were
  std::vector<SoundRecord> held_;  // with their times on the line
  double doubtedSince_ = 0;        // the stated time of the first of them
  Deviation deviation_;
  double jumped_ = 0;  // seconds by which the line jumped last; it fades
};

}  // namespace lumora
