#include "stream/packet.h"

#include <utility>

#include "base/big_endian.h"
#include "base/limits.h"
#include "encode/encoder_failure.h"
#include "h264/nal_units.h"

namespace lumora {
namespace {

enum class PacketType : std::uint8_t { configuration = 1, frame = 2 };

constexpr std::size_t headerBytesInLength = 10;  // header bytes that the length field counts
constexpr std::size_t maximumSampleBytes = maximumPacketBytes - headerBytesInLength;
constexpr std::size_t maximumParameterSetBytes = 4096;

// Fills in the header of a packet whose payload is in place.
void storeHeader(MutableByteView bytes, PacketType type, std::uint64_t frameID, bool keyframe) {
  storeBE(bytes.data(),
          static_cast<std::uint32_t>(bytes.size() - packetHeaderBytes + headerBytesInLength));
  bytes[4] = static_cast<std::uint8_t>(type);
  storeBE(bytes.data() + 5, frameID);
  bytes[13] = keyframe ? 1 : 0;
}

ByteView checkedParameterSet(const FormatDescription& format, std::size_t index) {
  const ParameterSet set = format.parameterSet(index);
  if (set.status != 0 || set.bytes.empty() || set.bytes.size() > maximumParameterSetBytes ||
      set.nalHeaderLength != nalLengthBytes) {
    throw EncoderFailure::status("H264 parameter set", set.status);
  }
  return set.bytes;
}

std::uint16_t checkedDimension(std::int64_t size) {
  if (!std::in_range<std::uint16_t>(size)) {
    throw EncoderFailure::message("preview dimensions do not fit the stream format");
  }
  return static_cast<std::uint16_t>(size);
}

bool isKeyFrame(ByteView sample) {
  const NalWalk walk = walkNalUnits(sample);
  if (walk.error == NalWalkError::truncatedHeader) {
    throw EncoderFailure::message("invalid encoded NAL header");
  }
  if (walk.error != NalWalkError::none) {
    throw EncoderFailure::message("invalid encoded NAL size");
  }
  return walk.idr;
}

SharedBytes makeConfiguration(const EncodedSample& sample, std::int64_t width,
                              std::int64_t height) {
  const auto format = sample.format();
  if (!format) throw EncoderFailure::message("missing H264 description");
  const ByteView sequence = checkedParameterSet(*format, 0);
  const ByteView picture = checkedParameterSet(*format, 1);
  Bytes bytes(packetHeaderBytes);
  appendBE(bytes, checkedDimension(width));
  appendBE(bytes, checkedDimension(height));
  appendBE(bytes, static_cast<std::uint16_t>(sequence.size()));
  appendBE(bytes, static_cast<std::uint16_t>(picture.size()));
  bytes.insert(bytes.end(), sequence.begin(), sequence.end());
  bytes.insert(bytes.end(), picture.begin(), picture.end());
  storeHeader(bytes, PacketType::configuration, 0, false);
  return std::make_shared<const Bytes>(std::move(bytes));
}

}  // namespace

FramePackets prepareFrame(const EncodedSample& sample, std::uint64_t frameID, std::int64_t width,
                          std::int64_t height) {
  const auto length = sample.dataIsReady() ? sample.dataLength() : std::nullopt;
  if (!length) throw EncoderFailure::message("encoded sample has no bytes");
  if (*length < minimumSampleBytes || *length > maximumSampleBytes) {
    throw EncoderFailure::message("encoded sample too large");
  }
  // Copied straight into the packet, so that the sample is copied only once.
  const auto frame = std::make_shared<Bytes>(packetHeaderBytes + *length);
  const MutableByteView payload = MutableByteView(*frame).subspan(packetHeaderBytes);
  const Status status = sample.copyBytes(0, payload);
  if (status != 0) throw EncoderFailure::status("encoded sample copy", status);

  FramePackets packets;
  packets.keyframe = isKeyFrame(payload);
  if (packets.keyframe) packets.configuration = makeConfiguration(sample, width, height);
  storeHeader(*frame, PacketType::frame, frameID, packets.keyframe);
  packets.frame = frame;
  return packets;
}

}  // namespace lumora
