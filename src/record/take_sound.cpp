#include "record/take_sound.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "encode/encoder_failure.h"

namespace lumora {
namespace {

constexpr double mostHeld = 10;        // seconds
constexpr double patience = 2;         // seconds without records until a device counts as silent
constexpr double longestPiece = 0.25;  // seconds of silence

}  // namespace

AacFormat TakeSound::begin(const OpenSound& open, double origin) {
  const Status status = open({format_.rate, trackRate_, format_.channels, bitRate_}, encoder_);
  if (status != 0) throw EncoderFailure::status("sound encoder opening", status);
  origin_ = origin;
  placing_.emplace(format_.rate, origin);
  const ByteView configuration = encoder_->configuration();
  return {static_cast<std::uint32_t>(trackRate_),
          static_cast<std::uint16_t>(format_.channels),
          static_cast<std::uint32_t>(encoder_->priming()),
          {configuration.begin(), configuration.end()}};
}

void TakeSound::add(std::vector<SoundRecord> records, bool isLast) {
  isLast_ = isLast_ || isLast;
  if (end_ || records.empty()) return;
  const SoundRecord& latest = records.back();
  behind_ = latest.readAt - latest.capturedAt - static_cast<double>(latest.samples) / format_.rate;
  std::ranges::move(records, std::back_inserter(held_));
  keepLatest(held_, mostHeld, format_.rate);
}

void TakeSound::endAt(double end) {
  end_ = end;
  std::erase_if(held_, [end](const SoundRecord& record) { return record.capturedAt >= end; });
}

std::optional<SoundPackets> TakeSound::next(double now) {
  if (!placing_ || isComplete_) return std::nullopt;
  SoundPackets packets;
  if (!held_.empty()) {
    const std::int64_t silence = placing_->fillBefore(held_.front(), longestPiece, length());
    encodeSilence(silence, packets);
    if (silence > 0) return packets;
    encode(held_.front(), packets);
    held_.pop_front();
  } else if (end_) {
    complete(packets);
  } else {
    const double pieceEnd = origin_ + length() + longestPiece;
    if (pieceEnd > now - behind_ - patience) return std::nullopt;
    encodeSilence(placing_->fill(pieceEnd, length()), packets);
  }
  return packets;
}

// Fills the track up to its end, then empties the encoder. The writer cuts what comes after the
// end.
void TakeSound::complete(SoundPackets& packets) {
  const std::int64_t missing = std::llround((*end_ - origin_) * trackRate_) - encoder_->length();
  const std::int64_t silence = (missing * format_.rate + trackRate_ - 1) / trackRate_;
  const auto piece = static_cast<std::int64_t>(longestPiece * format_.rate);
  encodeSilence(std::min(silence, piece), packets);
  if (silence > piece) return;
  isComplete_ = true;
  const Status status = encoder_->flush(packets);
  if (status != 0) throw EncoderFailure::status("sound encoding", status);
}

double TakeSound::end() const { return end_.value_or(placing_->settledUntil()); }

std::int64_t TakeSound::gaps() const { return placing_ ? placing_->gaps(end()) : 0; }

double TakeSound::missing() const { return placing_ ? placing_->missing(end()) : 0; }

double TakeSound::length() const { return static_cast<double>(encoder_->length()) / trackRate_; }

void TakeSound::encode(const SoundRecord& record, SoundPackets& packets) {
  const SoundPlacement placement = placing_->place(record, length());
  encodeSilence(placement.silence, packets);
  std::vector<std::int16_t> samples(record.pcm.size() / sizeof(std::int16_t));
  std::memcpy(samples.data(), record.pcm.data(), samples.size() * sizeof(std::int16_t));
  const auto cut = static_cast<std::size_t>(placement.cut * format_.channels);
  if (cut < samples.size())
    encodeSamples(std::span(samples).subspan(cut), placement.compensation, packets);
}

void TakeSound::encodeSilence(std::int64_t samples, SoundPackets& packets) {
  if (samples <= 0) return;
  const std::vector<std::int16_t> silence(static_cast<std::size_t>(samples * format_.channels));
  encodeSamples(silence, 0, packets);
}

void TakeSound::encodeSamples(std::span<const std::int16_t> samples, int compensation,
                              SoundPackets& packets) {
  const Status status = encoder_->encode(samples, compensation, packets);
  if (status != 0) throw EncoderFailure::status("sound encoding", status);
}

}  // namespace lumora
