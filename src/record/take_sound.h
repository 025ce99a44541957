#pragma once

// The sound of one take: records become packets of its track. Take's queue only.
//
// Records are held until they are encoded: at most the last ten seconds of sound. Once the movie
// has begun, each call of `next` encodes a little, so that pictures never wait long behind sound. A
// device that sends no record for two seconds counts as silent.

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "platform/movie_writer.h"
#include "platform/sound.h"
#include "sound/sound_placing.h"

namespace lumora {

class TakeSound {
 public:
  // `bitRate` is bits per second.
  TakeSound(SoundFormat format, std::int64_t bitRate) : format_(format), bitRate_(bitRate) {}

  // The track begins at uptime `origin`. Returns its format. Throws EncoderFailure.
  AacFormat begin(const OpenSound& open, double origin);
  // Takes the next records, if there are any. `isLast`: no more come.
  void add(std::vector<SoundRecord> records, bool isLast);
  // The track ends at this uptime. Records captured later, or added after this call, are dropped.
  void endAt(double end);
  // Encodes the next record, or at most a quarter of a second of silence. Returns the packets that
  // are complete, or nullopt if nothing is left to encode at uptime `now`. Throws EncoderFailure.
  std::optional<SoundPackets> next(double now);

  bool isEnding() const { return end_.has_value(); }
  bool isComplete() const { return isComplete_; }  // `next` has reached the end
  // Whether all sound up to this uptime is encoded, or all that has come is encoded and no more
  // comes. The movie must have begun.
  bool isSettledUntil(double end) const {
    return (isLast_ && held_.empty()) || placing_->settledUntil() >= end;
  }
  // How many gaps the track has, and for how many seconds no record came. Both cover the track up
  // to its end or, while no end is set, what is encoded so far.
  std::int64_t gaps() const;
  double missing() const;

 private:
  double length() const;  // of the track, in seconds
  double end() const;     // uptime at which the track ends, or up to which it is settled so far
  void encode(const SoundRecord& record, SoundPackets& packets);
  void complete(SoundPackets& packets);
  void encodeSilence(std::int64_t samples, SoundPackets& packets);
  void encodeSamples(std::span<const std::int16_t> samples, int compensation,
                     SoundPackets& packets);

  const SoundFormat format_;
  const std::int64_t bitRate_;
  const int trackRate_ = soundTrackRate(format_.rate);
  std::unique_ptr<SoundEncoder> encoder_;  // null until the movie has begun, like `placing_`
  std::optional<SoundPlacing> placing_;
  double origin_ = 0;  // uptime at which the movie begins
  std::deque<SoundRecord> held_;
  bool isLast_ = false;        // no more records come
  std::optional<double> end_;  // uptime at which the track ends
  bool isComplete_ = false;
  double behind_ = 0;  // seconds from the end of the latest record until it was read
};

}  // namespace lumora
