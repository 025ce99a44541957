#pragma once

// When the samples of a device were captured. The parent states a time for each record. These times
// are off by some milliseconds, each by a different amount. A Kalman filter finds the line through
// them. The line says when the next sample is captured, and how much slower than its nominal rate
// the device is.
//
// A single record whose time is off the line does not move the line. The parent may have read it
// late, and the times of the next records may be on the line again. So such a record is held. If
// four records in a row, over at least 50 ms, are off by about the same amount, samples were lost
// or a clock jumped, and the line starts again at these records.
//
// A parent that polls for records gets each one late by a different time, up to about a record's
// length. While times scatter like that, and in the first seconds, a time that is off by up to 0.6
// of a record's length (40 ms at most) also counts as on the line. If such times stay on one side
// of the line, the line is wrong. To notice this, the clock sums up record lengths. It adds those
// of records on one side. It subtracts those of records on the other side or close to the line. The
// line starts again when the sum exceeds both one second and the length of ten records.

#include <cstddef>
#include <vector>

#include "sound/sound_record.h"

namespace lumora {

// The clock of one device. One thread.
class DeviceClock {
 public:
  explicit DeviceClock(int rate) : rate_(rate) {}

  // Takes the next record. Returns the records whose times are certain now, in order and with
  // smoothed times: mostly just this one. Holds the others until they are certain, at most until
  // their stated times span 0.6 s or their sound lasts about two seconds.
  std::vector<SoundRecord> add(SoundRecord record);
  // Returns all held records if the last ones already look like a jump. Otherwise none: later
  // records decide.
  std::vector<SoundRecord> settle();
  // Returns all held records, without waiting for later ones.
  std::vector<SoundRecord> flush();

 private:
  static constexpr double leastJitter = 9e-6;  // variance: 3 ms squared

  struct Deviation {
    std::ptrdiff_t records = 0;  // at the end of `held_`, off by about the same amount
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
  double timeVariance_ = 0;      // of the error of `next_`
  double driftVariance_ = 0;     // of the error of `drift_`
  double covariance_ = 0;        // of the two errors
  double jitter_ = leastJitter;  // variance of the errors of the parent's times
  double scatter_ = 0.02;        // seconds: largest change of lateness between records; it fades
  double late_ = 0;              // seconds: lateness of the last record that counted as on the line
  double aside_ = 0;        // seconds for which times were on one side of the line; below 0: early
  double steadyDrift_ = 0;  // `drift_` when `aside_` was last 0
  std::vector<SoundRecord> held_;  // `capturedAt` is the time on the line, not the stated one
  double doubtedSince_ = 0;        // the stated time of the first record in `held_`
  Deviation deviation_;
  double jumped_ = 0;  // seconds by which the line jumped last; it fades
};

}  // namespace lumora
