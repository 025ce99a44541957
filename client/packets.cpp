#include <lumora/packets.h>

#include <stdexcept>

#include "client/big_endian.h"

namespace lumora::client {
namespace {

using ByteView = std::span<const std::uint8_t>;

constexpr std::size_t lengthBytes = 4;
constexpr std::size_t headerBytes = 14;
constexpr std::size_t minimumLength = headerBytes - lengthBytes;
constexpr std::size_t maximumLength = 2 * 1024 * 1024;

ByteView slice(ByteView bytes, std::size_t offset, std::size_t count) {
  if (offset > bytes.size() || count > bytes.size() - offset) {
    throw std::runtime_error("a packet is shorter than it says");
  }
  return bytes.subspan(offset, count);
}

std::uint64_t load(ByteView bytes, std::size_t offset, std::size_t count) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : slice(bytes, offset, count)) value = (value << 8) | byte;
  return value;
}

void appendUnit(std::vector<std::uint8_t>& stream, ByteView unit) {
  static constexpr std::uint8_t startCode[] = {0, 0, 0, 1};
  stream.insert(stream.end(), std::begin(startCode), std::end(startCode));
  stream.insert(stream.end(), unit.begin(), unit.end());
}

}  // namespace

void PacketParser::feed(ByteView bytes) {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(consumed_));
  consumed_ = 0;
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::optional<Packet> PacketParser::next() {
  const ByteView left = ByteView(bytes_).subspan(consumed_);
  if (left.size() < lengthBytes) return std::nullopt;
  const std::uint64_t length = load(left, 0, lengthBytes);
  if (length < minimumLength || length > maximumLength) {
    throw std::runtime_error("packet length out of range");
  }
  if (left.size() < lengthBytes + length) return std::nullopt;
  if (left[4] != 1 && left[4] != 2) throw std::runtime_error("unknown packet type");
  Packet packet;
  packet.type = static_cast<Packet::Type>(left[4]);
  packet.frameID = load(left, 5, 8);
  packet.keyframe = left[13] == 1;
  const ByteView payload = left.subspan(headerBytes, length - minimumLength);
  packet.payload.assign(payload.begin(), payload.end());
  consumed_ += lengthBytes + length;
  return packet;
}

std::vector<std::uint8_t> toBytes(const Packet& packet) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(headerBytes + packet.payload.size());
  appendBigEndian(bytes, minimumLength + packet.payload.size(), lengthBytes);
  appendBigEndian(bytes, static_cast<std::uint8_t>(packet.type), 1);
  appendBigEndian(bytes, packet.frameID, 8);
  appendBigEndian(bytes, packet.keyframe ? 1 : 0, 1);
  bytes.insert(bytes.end(), packet.payload.begin(), packet.payload.end());
  return bytes;
}

StreamConfiguration parseConfiguration(ByteView payload) {
  const auto sequence = static_cast<std::size_t>(load(payload, 4, 2));
  const auto picture = static_cast<std::size_t>(load(payload, 6, 2));
  const ByteView sequenceBytes = slice(payload, 8, sequence);
  const ByteView pictureBytes = slice(payload, 8 + sequence, picture);
  StreamConfiguration configuration;
  configuration.width = static_cast<int>(load(payload, 0, 2));
  configuration.height = static_cast<int>(load(payload, 2, 2));
  configuration.sequenceParameterSet.assign(sequenceBytes.begin(), sequenceBytes.end());
  configuration.pictureParameterSet.assign(pictureBytes.begin(), pictureBytes.end());
  return configuration;
}

std::vector<std::uint8_t> avcDecoderConfiguration(const StreamConfiguration& configuration) {
  constexpr std::uint8_t version = 1;
  constexpr std::uint8_t lengthsOfFourBytes = 0xFC | 3;
  constexpr std::uint8_t oneSequenceSet = 0xE0 | 1;
  const auto& sequence = configuration.sequenceParameterSet;
  const auto& picture = configuration.pictureParameterSet;
  if (sequence.size() < 4) throw std::runtime_error("the sequence parameter set is too short");
  std::vector<std::uint8_t> record = {version,     sequence[1],        sequence[2],
                                      sequence[3], lengthsOfFourBytes, oneSequenceSet};
  const auto append = [&record](const std::vector<std::uint8_t>& set) {
    appendBigEndian(record, set.size(), 2);
    record.insert(record.end(), set.begin(), set.end());
  };
  append(sequence);
  record.push_back(1);  // one picture parameter set
  append(picture);
  return record;
}

std::vector<std::uint8_t> toAnnexB(const Packet& packet) {
  std::vector<std::uint8_t> stream;
  if (packet.type == Packet::Type::configuration) {
    const StreamConfiguration configuration = parseConfiguration(packet.payload);
    appendUnit(stream, configuration.sequenceParameterSet);
    appendUnit(stream, configuration.pictureParameterSet);
    return stream;
  }
  const ByteView payload(packet.payload);
  for (std::size_t offset = 0; offset < payload.size();) {
    const auto size = static_cast<std::size_t>(load(payload, offset, 4));
    appendUnit(stream, slice(payload, offset + 4, size));
    offset += 4 + size;
  }
  return stream;
}

}  // namespace lumora::client
