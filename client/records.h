#pragma once

// Makes the records that a parent writes to the helper's standard input: a 16-byte header (length,
// width, height, frame id, all big-endian) and the payload. Does no input or output.

#include <lumora/frame.h>
#include <lumora/sound.h>
#include <lumora/uptime.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace lumora::client {

// The longest JSON text of a command. A longer one ends the helper.
constexpr std::size_t maximumCommandBytes = 4096;

using RecordHeaderBytes = std::array<std::uint8_t, 16>;

RecordHeaderBytes recordHeader(std::uint32_t length, std::uint16_t width, std::uint16_t height,
                               std::uint64_t id);

// The helper accepts no capture time further in the future than this.
constexpr Seconds mostAhead(0.05);

// The header of a frame whose payload has `length` bytes. Without `length`, the payload is an RGBA
// picture. Ids are above 0 and grow.
RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id, std::size_t length);
inline RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id) {
  return frameHeader(size, id, size.rgbaBytes());
}

// The whole record of a frame whose picture is at `offset` in the memory shared with the helper.
// A compressed picture needs `length`.
std::vector<std::uint8_t> frameReference(FrameSize size, std::uint64_t id, std::uint64_t offset,
                                         std::optional<std::uint64_t> length = std::nullopt);

// The records of this sound, each with at most a quarter of a second. `capturedAt` is the time of
// the first of `samples`, in microseconds of uptime. `lastID` is the id of the sound record before
// these, and is set to the id of the last of these. Ids grow even if times do not.
std::string soundRecords(std::span<const std::int16_t> samples, SoundFormat format,
                         std::uint64_t capturedAt, std::uint64_t& lastID);

// The whole record of a command. `json` must have 1 to `maximumCommandBytes` bytes.
std::string commandRecord(const std::string& json);

}  // namespace lumora::client
