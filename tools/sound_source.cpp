#include "tools/sound_source.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace lumora::tools {

void SteadySound::write(client::Helper& helper, client::Uptime::time_point now,
                        const Sample& sample) {
  const auto [rate, channels] = soundFormat;
  if (now - next_ > longestSound) next_ = now;  // the first time, or this process was stopped
  const auto count = static_cast<std::int64_t>(std::ceil((now - next_).count() * rate));
  std::vector<std::int16_t> samples;
  for (std::int64_t i = 0; i < count; ++i) {
    samples.insert(samples.end(), static_cast<std::size_t>(channels),
                   static_cast<std::int16_t>(sample(written_++)));
  }
  helper.writeSound(samples, next_);
  next_ += client::Seconds(static_cast<double>(count) / rate);
}

void Beeps::write(client::Helper& helper, client::Uptime::time_point now, bool flashes) {
  constexpr double pitch = 1000, amplitude = 16000;
  sound_.write(helper, now, [this](std::int64_t number) {
    const double phase = 2 * std::numbers::pi * pitch * static_cast<double>(number);
    return isLoud_ ? amplitude * std::sin(phase / soundFormat.rate) : 0;
  });
  isLoud_ = flashes;
}

Microphone::Microphone(const std::string& device)
    : pipe_("ffmpeg -v error -nostdin -f " + shellQuoted(device.substr(0, device.find(':'))) +
            " -i " + shellQuoted(device.substr(device.find(':') + 1)) + " -f s16le -ar " +
            std::to_string(soundFormat.rate) + " -ac " + std::to_string(soundFormat.channels) +
            " -flush_packets 1 -"),
      samples_(pipeBytes / sizeof(std::int16_t)) {}

std::span<const std::int16_t> Microphone::next() {
  constexpr auto sampleBytes =
      static_cast<std::size_t>(soundFormat.channels) * sizeof(std::int16_t);
  constexpr auto most = static_cast<std::size_t>(longestSound.count() * soundFormat.rate) *
                        static_cast<std::size_t>(soundFormat.channels);
  const std::span bytes(reinterpret_cast<char*>(samples_.data()), pipeBytes);
  std::size_t filled = 0;
  while (filled == 0 || filled % sampleBytes != 0) {
    const std::size_t count = pipe_.read(bytes.subspan(filled));
    if (count == 0) return {};
    filled += count;
    if (filled == bytes.size()) filled = 0;  // the pipe was full, so these samples are old
  }
  const auto samples = std::span(samples_).first(filled / sizeof(std::int16_t));
  return samples.last(std::min(samples.size(), most));
}

}  // namespace lumora::tools
