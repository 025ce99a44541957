#pragma once

#include <cstddef>
#include <cstdint>

namespace lumora {

constexpr std::int64_t maximumRawPixels = 1920 * 1080;                    // pixels of a raw frame
constexpr std::size_t maximumRawBytes = 1920 * 1080 * 4;                  // bytes of a raw frame
constexpr std::size_t maximumPacketBytes = std::size_t{2} * 1024 * 1024;  // stream packet
constexpr std::size_t maximumLineBytes = 4096;          // event, command, peer line
constexpr double acknowledgementTimeout = 0.5;          // seconds
constexpr std::size_t maximumUnacknowledgedFrames = 6;  // per peer
constexpr int mirroredRecordingWidth = 1080;            // pixels
constexpr int mirroredRecordingHeight = 720;            // pixels

constexpr double helloTimeout = 1.0;  // seconds from accept to a valid "hello"
constexpr std::size_t maximumAuthenticatedPeers = 2;
constexpr std::size_t maximumWaitingPeers = 4;  // accepted, no "hello" yet
constexpr double serviceInterval = 0.025;       // seconds between ticks of the service timer
constexpr double shutdownTimeout = 2.0;         // seconds a take may need to finish

}  // namespace lumora
