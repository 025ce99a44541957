#include "client/records.h"

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

std::string commandRecord(const std::string& json) {
  const auto header = recordHeader(static_cast<std::uint32_t>(json.size()), 0, 0, 0);
  return std::string(header.begin(), header.end()) + json;
}

}  // namespace lumora::client
