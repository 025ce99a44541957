#include "client/records.h"

#include <algorithm>

namespace lumora::client {
namespace {

void store(std::uint8_t* space, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) {
    space[i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
  }
}

}  // namespace

RecordHeaderBytes recordHeader(std::uint32_t length, std::uint16_t width, std::uint16_t height,
                               std::uint64_t id) {
  RecordHeaderBytes header{};
  store(header.data(), length, 4);
  store(header.data() + 4, width, 2);
  store(header.data() + 6, height, 2);
  store(header.data() + 8, id, 8);
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
  store(record.data() + header.size(), offset, 8);
  return record;
}

std::string commandRecord(const std::string& json) {
  const auto header = recordHeader(static_cast<std::uint32_t>(json.size()), 0, 0, 0);
  return std::string(header.begin(), header.end()) + json;
}

}  // namespace lumora::client
