#include "stream/packet.h"

#include <algorithm>
#include <limits>

#include "base/big_endian.h"
#include "base/limits.h"
#include "encode/encoder_failure.h"
#include "h264/nal_units.h"

namespace lumora {
namespace {

constexpr std::size_t headerBytesInLength = 10;  // the header behind the length field
constexpr std::size_t maximumSampleBytes = maximumPacketBytes - headerBytesInLength;
constexpr std::size_t maximumParameterSetBytes = 4096;

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
  if (size < 0 || size > std::numeric_limits<std::uint16_t>::max()) {
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

}  // namespace

Bytes packet(PacketType type, std::uint64_t frameID, bool keyframe, ByteView payload) {
  Bytes bytes(packetHeaderBytes + payload.size());
  std::ranges::copy(payload, bytes.begin() + packetHeaderBytes);
  storeHeader(bytes, type, frameID, keyframe);
  return bytes;
}

Bytes makeConfiguration(const EncodedSample& sample, std::int64_t width, std::int64_t height) {
  const auto format = sample.format();
  if (!format) throw EncoderFailure::message("missing H264 description");
  const ByteView sequence = checkedParameterSet(*format, 0);
  const ByteView picture = checkedParameterSet(*format, 1);
  Bytes payload;
  appendBE(payload, checkedDimension(width));
  appendBE(payload, checkedDimension(height));
  appendBE(payload, static_cast<std::uint16_t>(sequence.size()));
  appendBE(payload, static_cast<std::uint16_t>(picture.size()));
  payload.insert(payload.end(), sequence.begin(), sequence.end());
  payload.insert(payload.end(), picture.begin(), picture.end());
  return packet(PacketType::configuration, 0, false, payload);
}

FramePackets prepareFrame(const EncodedSample& sample, std::uint64_t frameID, std::int64_t width,
                          std::int64_t height) {
  const auto length = sample.dataIsReady() ? sample.dataLength() : std::nullopt;
  if (!length) throw EncoderFailure::message("encoded sample has no bytes");
  if (*length < minimumSampleBytes || *length > maximumSampleBytes) {
    throw EncoderFailure::message("encoded sample too large");
  }
  // The sample is copied once, straight to its place in the packet.
  const auto frame = std::make_shared<Bytes>(packetHeaderBytes + *length);
  const MutableByteView payload = MutableByteView(*frame).subspan(packetHeaderBytes);
  const Status status = sample.copyBytes(0, payload);
  if (status != 0) throw EncoderFailure::status("encoded sample copy", status);

  FramePackets packets;
  packets.keyframe = isKeyFrame(payload);
  if (packets.keyframe) {
    packets.configuration = std::make_shared<const Bytes>(makeConfiguration(sample, width, height));
  }
  storeHeader(*frame, PacketType::frame, frameID, packets.keyframe);
  packets.frame = frame;
  return packets;
}

}  // namespace lumora
