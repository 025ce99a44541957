// The sound of a take: it is received, then encoded and written on the take's queue.

#include "base/out_of_memory.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"

namespace lumora {

void MovieRecorder::hear(std::shared_ptr<SoundInput> input) {
  soundInput = std::move(input);
  soundInput->sendTo([weak = weak_from_this()](std::vector<SoundRecord> records, bool isLast) {
    if (const auto self = weak.lock()) self->addSound(std::move(records), isLast);
  });
}

// If the take's queue hangs, sound beyond `longestWait` becomes silence. The first records, those
// that `SoundInput` has kept, always fit.
void MovieRecorder::addSound(std::vector<SoundRecord> records, bool isLast) {
  constexpr std::int64_t longestWait = 4;  // seconds of sound
  std::int64_t samples = 0;
  for (const SoundRecord& record : records) samples += record.samples;
  if (waitingSound + samples > longestWait * options.sound->rate) {
    records.clear();
    samples = 0;
  }
  if (records.empty() && !isLast) return;
  waitingSound += samples;
  queue->async([self = shared_from_this(), samples, isLast, next = std::move(records)]() mutable {
    self->waitingSound -= samples;
    self->holdSound(std::move(next), isLast);
  });
}

void MovieRecorder::holdSound(std::vector<SoundRecord> records, bool isLast) {
  if (failed) return;
  try {
    sound->add(std::move(records), isLast);
  } catch (const std::exception& reason) {
    return fail(reasonOf(reason), FrameOutcome::encoder);
  }
  encodeSound();
}

// Encodes a little now, and the rest in later jobs, between pictures.
void MovieRecorder::encodeSound() {
  const bool hasEnded = sound->isEnding() && !awaitedEnd;
  if (isSoundQueued || failed || hasEnded) return;
  auto cause = FrameOutcome::encoder;
  try {
    const auto packets = sound->next(platform.clock->uptime());
    cause = FrameOutcome::disk;
    if (packets) {
      writeSound(*packets);
      soundLater();
    }
  } catch (const std::exception& reason) {
    return fail(reasonOf(reason), cause);
  }
  if (!awaitedEnd) return;
  if (sound->isComplete() || isShortOfTime()) return endAwaited();
  if (sound->isSettledUntil(origin + *awaitedEnd)) endSound();
}

void MovieRecorder::soundLater() {
  queue->async([self = shared_from_this()] {
    self->isSoundQueued = false;
    self->encodeSound();
  });
  isSoundQueued = true;
}

// Waits for sound, `longest` at most. Just before that time is over, asks for the records that
// `DeviceClock` still holds.
void MovieRecorder::waitForSound() {
  constexpr double longest = 0.5, settling = 0.05;  // seconds
  queue->asyncAfter(longest - settling, [self = shared_from_this()] {
    if (self->awaitsSound()) self->soundInput->settle();
  });
  queue->asyncAfter(longest, [self = shared_from_this()] { self->endSound(); });
}

// Fills the track up to `awaitedEnd`, then ends the movie.
void MovieRecorder::endSound() {
  if (!awaitsSound()) return;
  sound->endAt(origin + *awaitedEnd);
  encodeSound();
}

// Whether the helper ends so soon that the rest of the sound must be left out.
bool MovieRecorder::isShortOfTime() const {
  constexpr double least = 0.5;  // seconds for the disk
  return platform.clock->uptime() > latestEnd - least;
}

// Writes as much sound of a failed take as can be encoded in `longest` seconds.
void MovieRecorder::keepSound(double end) {
  constexpr double longest = 0.5;  // seconds
  const double latest = platform.clock->uptime() + longest;
  sound->endAt(end);
  while (platform.clock->uptime() <= latest) {
    const auto packets = sound->next(latest);
    if (!packets) return;
    writeSound(*packets);
  }
}

void MovieRecorder::writeSound(const SoundPackets& packets) {
  if (packets.empty()) return;
  checkWriter();
  std::size_t bytes = 0;
  for (const Bytes& packet : packets) {
    if (!writer->append(packet)) refuseSample();
    bytes += packet.size();
  }
  bestEffort([&] {
    if (options.minimumFree) recentBytes.emplace_back(platform.clock->uptime(), bytes);
  });
  checkSpace();
}

}  // namespace lumora
