#pragma once

// When the samples of a device were captured. The parent's times are off by some milliseconds, each
// by a different amount. A Kalman filter finds the line through them: when the next sample is
// captured, and how much slower than its nominal rate the device is.
//
// One time off the line does not move the line: the parent may have read that record late, and the
// next times are on the line again. So such records are held. If four of them in a row, over at
// least 50 ms, are off by about the same amount, samples were lost or a clock jumped, and the line
// starts again there.
//
// A parent that polls for records gets each one late by a different time, up to about a record's
// length. While times scatter like that, and at first, a time that is off by up to 0.6 of that
// length (40 ms at most) counts as on the line. Times that count as on the line can still all lie
// on one side of it. The time spent on one side is added up. Time spent on the other side, or close
// to the line, is subtracted. The line restarts when the sum exceeds both a second and ten records.

#include <cstddef>
#include <vector>

#include "sound/sound_record.h"

namespace lumora {

// The clock of one device. One thread.
class DeviceClock {
 public:
  explicit DeviceClock(int rate) : rate_(rate) {}

  // Takes the next record. Returns those whose times are certain now, in order and with smoothed
  // times: mostly just this one. Holds the others until their stated times span 0.6 s, or their
  // sound about two seconds.
  std::vector<SoundRecord> add(SoundRecord record);
  // Returns all held records if the last ones already look like a jump. Otherwise none: later
  // records decide.
  std::vector<SoundRecord> settle();
  // Returns all held records, without waiting for later ones.
  std::vector<SoundRecord> flush();

 private:
  static constexpr double leastJitter = 9e-6;  // variance: 3 ms squared

  struct Deviation {
    std::ptrdiff_t records = 0;  // how many of the last ones in `held_`
    double least = 0;            // seconds off the line
    double most = 0;
  };

  void startAt(double time);
  void correct(double late, double seconds);
  void followStep(double stated, double late, double seconds);
  void advance(double seconds);
  double usualLateness(double seconds) const;
  void deviate(double late);
  bool hasJumped(std::ptrdiff_t fewestRecords) const;
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
  double late_ = 0;              // lateness in seconds of the latest time that is on the line
  double aside_ = 0;        // seconds for which times were on one side of the line; below 0: early
  double steadyDrift_ = 0;  // `drift_` when `aside_` was last 0
  std::vector<SoundRecord> held_;  // with their times on the line
  double doubtedSince_ = 0;        // the stated time of the first of them
  Deviation deviation_;
  double jumped_ = 0;  // seconds by which the line jumped last; it fades
};

}  // namespace lumora
