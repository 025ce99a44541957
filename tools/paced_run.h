#pragma once

// One timed run of a helper, driven as an application drives it: frames at a steady rate, clients
// that watch the stream, perhaps a take. For the demo, the benchmarks and bug reports.

#include "tools/frame_source.h"

namespace lumora::tools {

struct RunOptions {
  client::HelperOptions helper = {};
  int framesPerSecond = 60;
  double seconds = 10;
  int clients = 2;
  std::optional<client::TakeOptions> take = {};  // stops after the last frame
  std::uint64_t framesBeforeTake = 0;
  std::string previewPath = {};  // Annex B file of what the first client receives; empty: none
  // Called before each frame is written; may be empty.
  std::function<void(client::Helper& helper, std::uint64_t frame)> beforeFrame = {};
  // Writes the sound up to `capturedAt`; may be empty. Called after each frame with the frame's
  // capture time. After the last frame, called once more with the time when another would be due.
  std::function<void(client::Helper& helper, client::Uptime::time_point capturedAt,
                     std::uint64_t frame)>
      writeSound = {};
  // Called for each line that the helper prints, on a thread of the client library; may be empty.
  std::function<void(const std::string& line)> onEvent = {};
};

// A frame packet that a client received.
struct Delivery {
  std::uint64_t frame = 0;  // its number, from 1
  double milliseconds = 0;  // from the call of `Helper::writeFrame` to the packet
};

struct RunReport {
  client::FrameTransport transport = {};  // the one in use
  double readyMilliseconds = 0;           // from the start of the helper
  std::uint64_t fed = 0;                  // calls of `Helper::writeFrame`
  client::FrameCounts frames = {};        // how many were written and dropped
  std::vector<Delivery> deliveries = {};  // to all clients
  std::uint64_t bytes = 0;                // of their payloads
  client::Stats stats = {};               // the latest event; `delivery` may be from an earlier one
  client::Recording take = {};            // the latest event of the take in `RunOptions`
  std::string error = {};                 // the helper's latest; empty: none
  std::vector<double> lateness = {};      // how late the feeder woke for each frame, milliseconds
  double fedSeconds = 0;
  double parentCPUSeconds = 0;  // of this process, while frames were fed
  double peakMegabytes = 0;     // of the helper's memory
  client::Exited exit = {};

  // The value below which this fraction of the deliveries' latencies lies, in milliseconds.
  double latency(double fraction) const;
};

// Called once a second with what is known by then.
using Progress = std::function<void(const RunReport& report)>;

// Throws what client::Helper, its `startTake` and client::StreamClient throw. Also throws
// std::runtime_error when the clients are not admitted or the source gives no frame, unless the
// helper has ended.
RunReport runPaced(const RunOptions& options, FrameSource& source, const Progress& progress = {});

// The value below which this fraction of the values lies; 0 without values.
double percentile(std::vector<double> values, double fraction);

}  // namespace lumora::tools
