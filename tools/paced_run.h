#pragma once

// One timed run of the helper, as a camera application would drive it: frames at a steady rate,
// stream clients that acknowledge, events read. Used by the demo and the benchmarks.

#include <functional>
#include <string>
#include <vector>

#include "tools/frame_source.h"
#include "tools/helper_process.h"

namespace lumora::tools {

// A take that runs until the last frame is fed.
struct TakeOptions {
  std::string path;        // absolute, ".mp4"; empty: no take
  std::string resolution;  // a profile's name
  int targetFPS = 60;
  std::uint64_t framesBefore = 0;  // fed before it begins
};

struct RunOptions {
  client::LaunchOptions launch;
  client::FrameTransport frames = client::FrameTransport::memory;
  int framesPerSecond = 60;
  double seconds = 10;
  int clients = 2;
  TakeOptions take;
  std::string previewPath;  // where the first client's stream goes, as Annex B; empty: nowhere
  // Called before each frame is written, for commands of one's own; may be empty.
  std::function<void(tools::HelperProcess&, std::uint64_t frame)> beforeFrame;
};

struct RunProgress {
  std::uint64_t fed = 0;       // frames written
  std::uint64_t received = 0;  // frame packets, over all clients
  std::uint64_t bytes = 0;     // of those packets
  double latency = 0;          // of the latest one, milliseconds
  tools::Event statistics;     // the latest "stats" event with diagnostics
  tools::Event take;           // the latest "recording" event
  std::string error;           // the message of an "error" event
};

// A frame packet as one client got it.
struct Delivery {
  std::uint64_t frame = 0;  // its number, from 1
  double milliseconds = 0;  // from the frame's last byte written to its packet received
  double fromCall = 0;      // the same from before its first byte was written
};

struct RunReport {
  RunProgress last;
  double readyMilliseconds = 0;  // from exec to "ready"
  std::uint64_t droppedBeforeFeeding = 0;
  std::vector<Delivery> deliveries;  // over all clients
  std::vector<double> lateness;      // how late the feeder woke for each frame, milliseconds
  double fedSeconds = 0;
  double peakMegabytes = 0;  // of the helper's memory
  client::ExitStatus exit;
  double parentCPU = 0;  // seconds that our own process took meanwhile, its clients' included
};

// Throws std::runtime_error when the helper can't be started, does not become ready, does not admit
// the clients or does not end, or when the source gives no picture.
RunReport runPaced(const RunOptions& options, FrameSource& source,
                   const std::function<void(const RunProgress&)>& progress);

// The latencies alone, in milliseconds.
std::vector<double> latencies(const RunReport& report);

// The value below which `fraction` of `values` lie.
double percentile(std::vector<double> values, double fraction);

}  // namespace lumora::tools
