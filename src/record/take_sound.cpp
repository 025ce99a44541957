#include "record/take_sound.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "encode/encoder_failure.h"

namespace lumora {
namespace {

constexpr double mostHeld = 10;  // seconds
constexpr double patience = 2;   // seconds without records until a device counts as silent
constexpr int piecesInASecond = 4;

}  // namespace

AacFormat TakeSound::begin(const OpenSound& open, double origin) {
  const Status status = open({format_.rate, trackRate_, format_.channels, bitRate_}, encoder_);
  if (status != 0) throw EncoderFailure::status("sound encoder opening", status);
  placing_.emplace(format_.rate, origin);
  const ByteView configuration = encoder_->configuration();
  return {static_cast<std::uint32_t>(trackRate_),
          static_cast<std::uint16_t>(format_.channels),
          static_cast<std::uint32_t>(encoder_->priming()),
          {configuration.begin(), configuration.end()}};
}

SoundPackets TakeSound::add(std::vector<SoundRecord> records, double now, bool isLast) {
  isLast_ = isLast_ || isLast;
  if (end_) return {};
  std::ranges::move(records, std::back_inserter(held_));
  if (!placing_) {
    while (!held_.empty() && held_.back().capturedAt - held_.front().capturedAt > mostHeld)
      held_.pop_front();
    return {};
  }
  SoundPackets packets;
  const bool isSilent = held_.empty();
  for (; !held_.empty(); held_.pop_front()) encode(held_.front(), packets);
  if (!isSilent) behind_ = now - placing_->heardUntil();
  encodeSilence(placing_->fill(now - behind_ - patience, length()), packets);
  return packets;
}

// The writer cuts what is behind the end.
SoundPackets TakeSound::end(double end) {
  SoundPackets packets;
  if (!placing_ || end_) return packets;
  end_ = end;
  const std::int64_t missing = placing_->trackSamples(end, trackRate_) - encoder_->length();
  encodeSilence((missing * format_.rate + trackRate_ - 1) / trackRate_, packets);
  const Status status = encoder_->flush(packets);
  if (status != 0) throw EncoderFailure::status("sound encoding", status);
  return packets;
}

double TakeSound::missing() const {
  return placing_ ? placing_->missing(end_.value_or(placing_->heardUntil())) : 0;
}

double TakeSound::length() const { return static_cast<double>(encoder_->length()) / trackRate_; }

void TakeSound::encode(const SoundRecord& record, SoundPackets& packets) {
  const SoundPlacement placement = placing_->place(record, length());
  encodeSilence(placement.silence, packets);
  std::vector<std::int16_t> samples(record.pcm.size() / sizeof(std::int16_t));
  std::memcpy(samples.data(), record.pcm.data(), samples.size() * sizeof(std::int16_t));
  const auto cut = static_cast<std::size_t>(placement.cut * format_.channels);
  if (cut < samples.size()) encodeSamples(std::span(samples).subspan(cut), placement.gain, packets);
}

void TakeSound::encodeSilence(std::int64_t samples, SoundPackets& packets) {
  if (samples <= 0) return;
  const std::int64_t piece = std::min<std::int64_t>(samples, format_.rate / piecesInASecond);
  const std::vector<std::int16_t> silence(static_cast<std::size_t>(piece * format_.channels));
  for (; samples > 0; samples -= piece) {
    const std::int64_t next = std::min(samples, piece) * format_.channels;
    encodeSamples(std::span(silence).first(static_cast<std::size_t>(next)), 0, packets);
  }
}

void TakeSound::encodeSamples(std::span<const std::int16_t> samples, int gain,
                              SoundPackets& packets) {
  const Status status = encoder_->encode(samples, gain, packets);
  if (status != 0) throw EncoderFailure::status("sound encoding", status);
}

}  // namespace lumora
