#pragma once

// The limits and timeouts of the whole service. Limits of a single format or rule are in its file.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace lumora {

constexpr std::int64_t maximumRawPixels = 1920 * 1080;                // of a raw frame
constexpr std::size_t maximumRecordingSampleBytes = 1920 * 1080 * 4;  // of an encoded sample
constexpr std::size_t maximumPacketBytes = 2 << 20;  // of a stream packet without its length field
constexpr std::size_t maximumLineBytes = 4096;       // of an event, a command or a peer's line
constexpr std::size_t maximumMessageCharacters = 240;  // of an event's error text
constexpr std::size_t maximumTokenBytes = 128;         // of the run's secret

constexpr std::ptrdiff_t maximumPendingCommands = 64;  // read and not yet handled
constexpr int maximumDropsAhead = 1000;                // dropped frames that are not logged yet
constexpr std::chrono::seconds commandSlotTimeout{2};  // how long the reader waits for a free slot

constexpr std::size_t maximumAuthenticatedPeers = 2;
constexpr std::size_t maximumWaitingPeers = 4;          // accepted, no "hello" yet
constexpr std::size_t maximumUnacknowledgedFrames = 6;  // per peer
constexpr double helloTimeout = 1.0;                    // seconds from accept to a valid "hello"
// Seconds that a frame may stay unacknowledged, and that the network may take for one send.
constexpr double acknowledgementTimeout = 0.5;

// Commands and sound records carry times that the parent has stated. Such a time may lie at most
// `maximumLead` seconds after the helper's clock, and at most `maximumAge` seconds before it.
constexpr double maximumLead = 0.05;
constexpr double maximumAge = 30;

constexpr double serviceInterval = 0.025;  // seconds between ticks of the service timer
constexpr double prepareTimeout = 0.5;     // seconds that "ready" waits for an encoder
constexpr double shutdownTimeout = 2.0;    // seconds a take may need to finish
// If the state queue hangs during a shutdown, the process ends this many seconds after the
// beginning of the shutdown. Longer than `shutdownTimeout`.
constexpr double watchdogTimeout = 2.2;

}  // namespace lumora
