#include "mp4/sample_entries.h"

#include <limits>

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
  u8(bytes, 0xFF);                                                        // 4-byte NAL lengths
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

// 14496-14, 5.6, with the descriptors of 14496-1, 7.2.6. Each descriptor begins with a tag and
// the number of bytes that follow.
void elementaryStream(Bytes& bytes, const Bytes& configuration) {
  const std::size_t size = configuration.size();
  const Box box(bytes, "esds", 0, 0);
  u8(bytes, 0x03);  // the stream
  u8(bytes, static_cast<std::uint8_t>(3 + 2 + 13 + 2 + size + 3));
  zeros(bytes, 3);
  u8(bytes, 0x04);  // its decoder
  u8(bytes, static_cast<std::uint8_t>(13 + 2 + size));
  u8(bytes, 0x40);      // AAC
  u8(bytes, 0x15);      // sound
  zeros(bytes, 3 + 8);  // buffer size and bit rates: not given
  u8(bytes, 0x05);      // its configuration
  u8(bytes, static_cast<std::uint8_t>(size));
  bytes.insert(bytes.end(), configuration.begin(), configuration.end());
  text(bytes, "\x06\x01\x02");  // sync layer; 2 means that the boxes of the MP4 file have the times
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

// 14496-12, 12.2.3, and 14496-14, 5.6.1
void soundEntry(Bytes& bytes, const AacFormat& format) {
  const bool fits = format.rate <= std::numeric_limits<std::uint16_t>::max();
  const Box box(bytes, "mp4a");
  zeros(bytes, 6);
  u16(bytes, 1);  // data reference
  zeros(bytes, 8);
  u16(bytes, format.channels);
  u16(bytes, 16);  // bits of a decoded sample
  zeros(bytes, 4);
  u32(bytes, fits ? format.rate << 16 : 0);  // a larger rate is left to the configuration
  elementaryStream(bytes, format.configuration);
}

}  // namespace lumora
