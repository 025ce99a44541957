#pragma once

// The sound of one take: records become packets of its track. Take's queue only.
//
// Until the movie begins, records are held, ten seconds at most. From then on each is placed and
// encoded as it comes. A device from which nothing comes for two seconds counts as silent.

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

  // These three throw EncoderFailure if the encoder fails, and return the next packets.

  // Begins the movie at this uptime. Returns the format of its track.
  AacFormat begin(const OpenSound& open, double origin);
  // Takes the next records, if there are any, at uptime `now`. `isLast`: no more come.
  SoundPackets add(std::vector<SoundRecord> records, double now, bool isLast);
  // Ends the track at this uptime, once. Later records are left.
  SoundPackets end(double end);

  // Whether all sound up to this uptime has come, once the movie has begun.
  bool hasHeard(double end) const { return isLast_ || placing_->heardUntil() >= end; }
  int gaps() const { return placing_ ? placing_->gaps() : 0; }
  // Seconds of the movie for which no record came, so far or up to its end.
  double missing() const;

 private:
  double length() const;  // of the track, in seconds
  void encode(const SoundRecord& record, SoundPackets& packets);
  void encodeSilence(std::int64_t samples, SoundPackets& packets);
  void encodeSamples(std::span<const std::int16_t> samples, int gain, SoundPackets& packets);

  const SoundFormat format_;
  const std::int64_t bitRate_;
  const int trackRate_ = soundTrackRate(format_.rate);
  std::unique_ptr<SoundEncoder> encoder_;  // once the movie has begun, as `placing_`
  std::optional<SoundPlacing> placing_;
  std::deque<SoundRecord> held_;
  bool isLast_ = false;        // no more records come
  std::optional<double> end_;  // uptime, once the track has ended
  double behind_ = 0;          // seconds from a capture to its coming
};

}  // namespace lumora
