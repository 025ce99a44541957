#include "tools/sound_source.h"

#include <cmath>
#include <numbers>
#include <vector>

namespace lumora::tools {

void Beeps::write(client::Helper& helper, client::Uptime::time_point now, bool flashes) {
  constexpr client::Seconds longest(1);
  constexpr double pitch = 1000, amplitude = 16000;
  const auto [rate, channels] = soundFormat;
  if (now - next_ > longest) next_ = now;  // the first time, or this process was stopped
  const auto count = static_cast<std::int64_t>(std::ceil((now - next_).count() * rate));
  std::vector<std::int16_t> samples;
  for (std::int64_t i = 0; i < count; ++i) {
    const double phase = 2 * std::numbers::pi * pitch * static_cast<double>(written_++) / rate;
    const double level = isLoud_ ? amplitude * std::sin(phase) : 0;
    samples.insert(samples.end(), static_cast<std::size_t>(channels),
                   static_cast<std::int16_t>(level));
  }
  helper.writeSound(samples, next_);
  next_ += client::Seconds(static_cast<double>(count) / rate);
  isLoud_ = flashes;
}

}  // namespace lumora::tools
