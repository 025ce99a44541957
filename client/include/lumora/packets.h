#pragma once

// Splits the helper's TCP stream into packets, and turns packets into an H.264 byte stream. Does no
// input or output.
//
//   0        4      5            13    14
//   +--------+------+------------+-----+---------
//   | length | type | frame id   | key | payload        length = 10 + payload bytes
//   +--------+------+------------+-----+---------

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <lumora/export.h>

namespace lumora::client {

struct Packet {
  enum class Type : std::uint8_t { configuration = 1, frame = 2 };
  Type type = Type::frame;
  std::uint64_t frameID = 0;  // 0 in a configuration packet
  bool keyframe = false;
  std::vector<std::uint8_t> payload;
};

class LUMORA_CLIENT_EXPORT PacketParser {
 public:
  void feed(std::span<const std::uint8_t> bytes);
  // The next packet; empty until all of its bytes have arrived. Throws std::runtime_error for a
  // length or a type that no helper sends.
  [[nodiscard]] std::optional<Packet> next();

 private:
  std::vector<std::uint8_t> bytes_;
  std::size_t consumed_ = 0;
};

// The packet as the helper sends it.
LUMORA_CLIENT_EXPORT std::vector<std::uint8_t> toBytes(const Packet& packet);

// The payload of a configuration packet.
struct StreamConfiguration {
  int width = 0;   // pixels
  int height = 0;  // pixels
  std::vector<std::uint8_t> sequenceParameterSet;
  std::vector<std::uint8_t> pictureParameterSet;
};

// Throws std::runtime_error if the payload ends before its parameter sets do.
LUMORA_CLIENT_EXPORT StreamConfiguration parseConfiguration(std::span<const std::uint8_t> payload);

// The "avcC" record (ISO/IEC 14496-15, 5.3.3.1). Decoders and containers need it if a length of
// four bytes precedes each NAL unit, instead of a start code. Throws std::runtime_error if the
// sequence parameter set is shorter than four bytes.
LUMORA_CLIENT_EXPORT std::vector<std::uint8_t> avcDecoderConfiguration(
    const StreamConfiguration& configuration);

// The packet's NAL units with start codes, for decoders and ".h264" files. Throws
// std::runtime_error if the payload is malformed.
LUMORA_CLIENT_EXPORT std::vector<std::uint8_t> toAnnexB(const Packet& packet);

}  // namespace lumora::client
