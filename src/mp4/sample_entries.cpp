#include "mp4/sample_entries.h"

#include "mp4/box.h"

namespace lumora {
namespace {

// 14496-15, 5.3.3.1
void decoderConfiguration(Bytes& bytes, const FormatDescription& format) {
  const ByteView sequence = format.parameterSet(0).bytes;
  const ByteView picture = format.parameterSet(1).bytes;
  const Box box(bytes, "avcC");
  u8(bytes, 1);
  bytes.insert(bytes.end(), sequence.begin() + 1, sequence.begin() + 4);  // profile to level
  u8(bytes, 0xFF);                                                        // 4-byte lengths
  u8(bytes, 0xE1);  // one sequence parameter set
  u16(bytes, static_cast<std::uint16_t>(sequence.size()));
  bytes.insert(bytes.end(), sequence.begin(), sequence.end());
  u8(bytes, 1);
  u16(bytes, static_cast<std::uint16_t>(picture.size()));
  bytes.insert(bytes.end(), picture.begin(), picture.end());
  constexpr std::uint8_t highProfile = 100;
  if (sequence[1] == highProfile) {
    u8(bytes, 0xFD);  // 4:2:0
    u8(bytes, 0xF8);  // 8 bits of luma
    u8(bytes, 0xF8);  // 8 bits of chroma
    u8(bytes, 0);
  }
}

// 14496-12, 12.1.5
void colour(Bytes& bytes, const ColourDescription& codes) {
  const Box box(bytes, "colr");
  text(bytes, "nclx");
  u16(bytes, codes.primaries);
  u16(bytes, codes.transfer);
  u16(bytes, codes.matrix);
  u8(bytes, codes.fullRange ? 0x80 : 0);
}

}  // namespace

// 14496-12, 12.1.3 and 12.1.4
void pictureEntry(Bytes& bytes, const FormatDescription& format) {
  const Box box(bytes, "avc1");
  zeros(bytes, 6);
  u16(bytes, 1);  // data reference
  zeros(bytes, 16);
  u16(bytes, static_cast<std::uint16_t>(format.width()));
  u16(bytes, static_cast<std::uint16_t>(format.height()));
  u32(bytes, 0x480000);  // 72 dots per inch
  u32(bytes, 0x480000);
  zeros(bytes, 4);
  u16(bytes, 1);  // frames per sample
  zeros(bytes, 32);
  u16(bytes, 0x18);
  u16(bytes, 0xFFFF);
  decoderConfiguration(bytes, format);
  colour(bytes, format.colour());
  const Box squarePixels(bytes, "pasp");
  u32(bytes, 1);
  u32(bytes, 1);
}

}  // namespace lumora
