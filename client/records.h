#pragma once

// The records that a parent writes to the helper's standard input: a 16-byte header (length, width,
// height, frame id, all big-endian) and the payload. Pure.

#include <lumora/frame.h>

#include <array>
#include <cstdint>
#include <string>

namespace lumora::client {

constexpr std::size_t maximumCommandBytes = 4096;  // of its JSON text; more ends the helper

using RecordHeaderBytes = std::array<std::uint8_t, 16>;

RecordHeaderBytes recordHeader(std::uint32_t length, std::uint16_t width, std::uint16_t height,
                               std::uint64_t id);

// The header in front of width × height RGBA pixels, the bottom row of the picture first. Ids
// start above 0 and grow.
RecordHeaderBytes frameHeader(FrameSize size, std::uint64_t id);

// The whole record of a frame whose pixels lie at `offset` of the memory shared with the helper.
using ReferenceBytes = std::array<std::uint8_t, 24>;
ReferenceBytes frameReference(FrameSize size, std::uint64_t id, std::uint64_t offset);

// The whole record of a command, whose JSON text has 1 to `maximumCommandBytes` bytes.
std::string commandRecord(const std::string& json);

}  // namespace lumora::client
