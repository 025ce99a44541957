#pragma once

// The records that a parent writes to the helper's standard input: a 16-byte header (length, width,
// height, frame id, all big-endian) and the payload. Pure.

#include <lumora/frame.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumora::client {

constexpr std::size_t maximumCommandBytes = 4096;  // of its JSON text; more ends the helper

using RecordHeaderBytes = std::array<std::uint8_t, 16>;

RecordHeaderBytes recordHeader(std::uint32_t length, std::uint16_t width, std::uint16_t height,
                               std::uint64_t id);

// The header in front of a picture of this length, or of RGBA pixels. Ids start above 0 and grow.
RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id, std::size_t length);
inline RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id) {
  return frameHeader(size, id, size.rgbaBytes());
}

// The whole record of a frame whose picture lies at `offset` of the memory shared with the helper.
// A compressed one tells its length.
std::vector<std::uint8_t> frameReference(FrameSize size, std::uint64_t id, std::uint64_t offset,
                                         std::optional<std::uint64_t> length = std::nullopt);

// The whole record of a command, whose JSON text has 1 to `maximumCommandBytes` bytes.
std::string commandRecord(const std::string& json);

}  // namespace lumora::client
