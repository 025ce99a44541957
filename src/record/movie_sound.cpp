// The sound of a take, on the take's queue.

#include "base/out_of_memory.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"

namespace lumora {

// Sound for which a queue that hangs has no place becomes silence.
void MovieRecorder::addSound(std::vector<SoundRecord> records, bool isLast) {
  constexpr std::int64_t longestWait = 2;  // seconds of sound
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
    self->soundJob(std::move(next), isLast);
  });
}

void MovieRecorder::soundJob(std::vector<SoundRecord> records, bool isLast) {
  if (failed) return;
  try {
    writeSound(sound->add(std::move(records), platform.clock->uptime(), isLast));
  } catch (const std::exception& reason) {
    return fail(reasonOf(reason), FrameOutcome::disk);
  }
  if (awaitedEnd && sound->hasHeard(origin + *awaitedEnd)) endAwaited();
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
