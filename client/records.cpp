#include "client/records.h"

#include <algorithm>

#include "client/big_endian.h"

namespace lumora::client {

RecordHeaderBytes recordHeader(std::uint32_t length, std::uint16_t width, std::uint16_t height,
                               std::uint64_t id) {
  RecordHeaderBytes header{};
  const std::span space(header);
  storeBigEndian(space.first(4), length);
  storeBigEndian(space.subspan(4, 2), width);
  storeBigEndian(space.subspan(6, 2), height);
  storeBigEndian(space.last(8), id);
  return header;
}

RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id, std::size_t length) {
  return recordHeader(static_cast<std::uint32_t>(length), static_cast<std::uint16_t>(size.width),
                      static_cast<std::uint16_t>(size.height), id);
}

std::vector<std::uint8_t> frameReference(FrameSize size, std::uint64_t id, std::uint64_t offset,
                                         std::optional<std::uint64_t> length) {
  const auto header = frameHeader(size, id, length ? 16 : 8);
  std::vector<std::uint8_t> record(header.begin(), header.end());
  appendBigEndian(record, offset, 8);
  if (length) appendBigEndian(record, *length, 8);
  return record;
}

std::string soundRecords(std::span<const std::int16_t> samples, SoundFormat format,
                         std::uint64_t capturedAt, std::uint64_t& lastID) {
  const auto channels = static_cast<std::size_t>(format.channels);
  const auto rate = static_cast<std::size_t>(format.rate);
  std::string records;
  for (std::size_t at = 0; at < samples.size();) {
    const auto part = samples.subspan(at, std::min(rate / 4 * channels, samples.size() - at));
    lastID = std::max(lastID + 1, capturedAt + std::uint64_t{at / channels} * 1'000'000 / rate);
    const auto header = recordHeader(static_cast<std::uint32_t>(part.size_bytes()), 0, 0, lastID);
    records.append(header.begin(), header.end());
    for (const std::int16_t sample : part) {
      records += static_cast<char>(sample);  // the low byte first
      records += static_cast<char>(sample >> 8);
    }
    at += part.size();
  }
  return records;
}

std::string commandRecord(const std::string& json) {
  const auto header = recordHeader(static_cast<std::uint32_t>(json.size()), 0, 0, 0);
  return std::string(header.begin(), header.end()) + json;
}

}  // namespace lumora::client
