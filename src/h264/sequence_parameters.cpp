#include "h264/sequence_parameters.h"

#include <algorithm>
#include <array>
#include <optional>

#include "h264/bits.h"

namespace lumora {
namespace {

constexpr std::uint8_t emulationPrevention = 3;

// 7.4.1.1: removes the bytes that keep start codes out of a unit.
Bytes removeEmulationPrevention(ByteView unit) {
  Bytes bytes;
  int zeros = 0;
  for (const std::uint8_t byte : unit) {
    const bool escape = zeros >= 2 && byte == emulationPrevention;
    zeros = byte == 0 ? zeros + 1 : 0;
    if (!escape) bytes.push_back(byte);
  }
  return bytes;
}

Bytes addEmulationPrevention(ByteView bytes) {
  Bytes unit;
  int zeros = 0;
  for (const std::uint8_t byte : bytes) {
    if (zeros >= 2 && byte <= emulationPrevention) {
      unit.push_back(emulationPrevention);
      zeros = 0;
    }
    unit.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  return unit;
}

// What was read from a sequence parameter set. Positions are in bits. If the set has no usability
// information (VUI), `signalAt`, `signalEnd` and `restrictionAt` are the position of
// vui_parameters_present_flag.
struct Vui {
  bool present = false;
  std::size_t signalAt = 0;  // of video_signal_type_present_flag
  std::size_t signalEnd = 0;
  bool coloured = false;
  std::size_t restrictionAt = 0;  // of bitstream_restriction_flag
  bool restricted = false;
  std::uint32_t maxReferenceFrames = 0;
  std::uint32_t maxReorderFrames = 0;
  std::size_t end = 0;
};

void skipScalingList(BitReader& set, int size) {
  std::uint32_t last = 8;
  for (int i = 0; i < size && last != 0; ++i) {
    const std::uint32_t code = set.expGolomb();
    const std::uint32_t magnitude = (code + 1) / 2;
    last = (code % 2 != 0 ? last + magnitude : last - magnitude) % 256;
  }
}

// 7.3.2.1.1: the part that only some profiles have.
void skipChromaFormat(BitReader& set, std::uint32_t profile) {
  constexpr std::array<std::uint32_t, 13> extended = {100, 110, 122, 244, 44,  83, 86,
                                                      118, 128, 138, 139, 134, 135};
  if (std::ranges::find(extended, profile) == extended.end()) return;
  const std::uint32_t format = set.expGolomb();
  if (format == 3) set.flag();
  set.skipExpGolomb(2);  // bit depths
  set.flag();
  if (!set.flag()) return;
  for (int i = 0; i < (format == 3 ? 12 : 8); ++i) {
    if (set.flag()) skipScalingList(set, i < 6 ? 16 : 64);
  }
}

void skipPictureOrder(BitReader& set) {
  const std::uint32_t type = set.expGolomb();
  if (type == 0) set.expGolomb();
  if (type != 1) return;
  set.flag();
  set.skipExpGolomb(2);
  set.skipExpGolomb(set.expGolomb());
}

// E.1.2
void skipHrd(BitReader& set) {
  const std::uint32_t last = set.expGolomb();
  set.bits(8);
  for (std::uint32_t i = 0; i <= last && !set.isExhausted(); ++i) {
    set.skipExpGolomb(2);
    set.flag();
  }
  set.bits(20);
}

// E.1.1: reads up to bitstream_restriction_flag, and this flag too.
void readVui(BitReader& set, Vui& found) {
  constexpr std::uint32_t extendedSampleAspect = 255;
  if (set.flag() && set.bits(8) == extendedSampleAspect) set.bits(32);
  if (set.flag()) set.flag();  // overscan
  found.signalAt = set.position();
  if (set.flag()) {
    set.bits(4);
    found.coloured = set.flag();
    if (found.coloured) set.bits(24);
  }
  found.signalEnd = set.position();
  if (set.flag()) set.skipExpGolomb(2);  // chroma location
  if (set.flag()) {                      // timing
    set.bits(32);
    set.bits(32);
    set.flag();
  }
  const bool hasNalHrd = set.flag();
  if (hasNalHrd) skipHrd(set);
  const bool hasVclHrd = set.flag();
  if (hasVclHrd) skipHrd(set);
  if (hasNalHrd || hasVclHrd) set.flag();
  set.flag();  // picture structure
  found.restrictionAt = set.position();
  found.restricted = set.flag();
}

std::optional<Vui> read(ByteView bytes) {
  BitReader set(bytes);
  set.bits(8);  // the unit's header
  const std::uint32_t profile = set.bits(8);
  set.bits(16);  // constraints, level
  set.expGolomb();
  skipChromaFormat(set, profile);
  set.expGolomb();  // frame numbers
  skipPictureOrder(set);
  Vui found;
  found.maxReferenceFrames = set.expGolomb();
  set.flag();
  set.skipExpGolomb(2);         // size
  if (!set.flag()) set.flag();  // fields
  set.flag();
  if (set.flag()) set.skipExpGolomb(4);  // cropping
  found.signalAt = found.signalEnd = found.restrictionAt = set.position();
  found.present = set.flag();
  if (found.present) readVui(set, found);
  if (found.restricted) {
    set.flag();
    set.skipExpGolomb(4);
    found.maxReorderFrames = set.expGolomb();
    set.expGolomb();
  }
  found.end = set.position();
  return set.isExhausted() ? std::nullopt : std::optional(found);
}

void writeSignal(BitWriter& set, const ColourDescription& colour) {
  constexpr std::uint32_t unspecifiedFormat = 5;
  set.flag(true);
  set.bits(unspecifiedFormat, 3);
  set.flag(colour.fullRange);
  set.flag(true);
  set.bits(colour.primaries, 8);
  set.bits(colour.transfer, 8);
  set.bits(colour.matrix, 8);
}

// Says that no frame is reordered, and that a decoder keeps only the reference frames. Every other
// field gets its default, or the value that means no limit.
void writeRestriction(BitWriter& set, const Vui& found) {
  constexpr std::uint32_t unlimited = 0;
  constexpr std::uint32_t longestVector = 15;
  set.flag(true);
  set.flag(true);
  set.expGolomb(unlimited);
  set.expGolomb(unlimited);
  set.expGolomb(longestVector);
  set.expGolomb(longestVector);
  set.expGolomb(0);                         // reordered frames
  set.expGolomb(found.maxReferenceFrames);  // frames that a decoder keeps
}

}  // namespace

Bytes withUsabilityInformation(ByteView unit, const ColourDescription& colour) {
  const Bytes bytes = removeEmulationPrevention(unit);
  const auto found = read(bytes);
  const bool ordered = found && found->restricted && found->maxReorderFrames == 0;
  if (!found || (ordered && found->coloured)) return {unit.begin(), unit.end()};
  BitReader from(bytes);
  BitWriter set;
  set.copy(from, found->signalAt);
  if (!found->present) set.bits(0b100, 3);  // present, without aspect and overscan
  if (found->coloured)
    set.copy(from, found->signalEnd);
  else
    writeSignal(set, colour);
  if (!found->present) set.bits(0, 5);  // nothing else before the restriction
  from = BitReader(bytes, found->signalEnd);
  set.copy(from, ordered ? found->end : found->restrictionAt);
  if (!ordered) writeRestriction(set, *found);
  return addEmulationPrevention(set.finish());
}

}  // namespace lumora
