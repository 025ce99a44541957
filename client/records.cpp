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

RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id) {
  return recordHeader(static_cast<std::uint32_t>(size.bytes()),
                      static_cast<std::uint16_t>(size.width),
                      static_cast<std::uint16_t>(size.height), id);
}

ReferenceBytes frameReference(FrameSize size, std::uint64_t id, std::uint64_t offset) {
  const auto header = recordHeader(8, static_cast<std::uint16_t>(size.width),
                                   static_cast<std::uint16_t>(size.height), id);
  ReferenceBytes record{};
  std::ranges::copy(header, record.begin());
  storeBigEndian(std::span(record).last(8), offset);
  return record;
}

std::string commandRecord(const std::string& json) {
  const auto header = recordHeader(static_cast<std::uint32_t>(json.size()), 0, 0, 0);
  return std::string(header.begin(), header.end()) + json;
}

}  // namespace lumora::client
