#include "sound/sound_record.h"

#include "base/limits.h"

namespace lumora {

bool isValidSound(std::uint64_t id, std::uint64_t lastID, std::uint32_t bytes, SoundFormat format) {
  constexpr std::uint32_t mostInASecond = 4;
  const auto sampleBytes = static_cast<std::uint32_t>(format.sampleBytes());
  const std::uint32_t samples = bytes / sampleBytes;
  return id > lastID && samples > 0 && bytes % sampleBytes == 0 &&
         samples <= static_cast<std::uint32_t>(format.rate) / mostInASecond;
}

bool isTimely(double capturedAt, double now) {
  return capturedAt <= now + maximumLead && capturedAt >= now - maximumAge;
}

void keepLatest(std::deque<SoundRecord>& records, double seconds, int rate) {
  std::int64_t samples = 0;
  for (const SoundRecord& record : records) samples += record.samples;
  while (!records.empty() && (static_cast<double>(samples) > seconds * rate ||
                              records.back().capturedAt - records.front().capturedAt > seconds)) {
    samples -= records.front().samples;
    records.pop_front();
  }
}

}  // namespace lumora
