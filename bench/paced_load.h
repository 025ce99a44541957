#pragma once

// The helper under a steady load: what it drops, how late its preview is, what it costs.

#include <functional>
#include <string>
#include <vector>

#include "tools/helper_process.h"
#include "tools/paced_run.h"

namespace lumora::bench {

struct PacedLoad {
  std::string helper = {};  // its program
  std::string preset = {};  // of the software encoder; empty: as shipped
  int framesPerSecond = 60;
  double seconds = 10;
  int clients = 2;
  std::string take = "none";       // or a profile's name
  int targetFPS = 60;              // of the take
  std::uint64_t framesBefore = 0;  // fed before it begins
  std::string previewPath = {};    // where the files go; empty: nowhere that lasts
  std::string takePath = {};
  client::FrameTransport frames = client::FrameTransport::pipe;
  // Called before each frame is written, for commands of one's own.
  std::function<void(tools::HelperProcess&, std::uint64_t frame)> schedule = {};
};

struct PacedResult {
  std::uint64_t fed = 0;        // frames
  std::uint64_t delivered = 0;  // frame packets that a client received, on average
  std::uint64_t recorded = 0;
  std::uint64_t lostAtStart = 0;  // frames of the first second that were not delivered
  std::vector<tools::Delivery> deliveries = {};  // over all clients
  std::int64_t droppedRaw = 0;                   // frames that came while another one was in flight
  std::int64_t withheld = 0;                     // frames that a client was too slow for
  std::int64_t takeDropped = 0;
  std::int64_t takeThrottled = 0;
  double p50 = 0;  // latency from a frame's last byte to its packet, milliseconds
  double p95 = 0;
  double p99 = 0;
  double fromCallP50 = 0;  // from before its first byte
  double fromCallP99 = 0;
  double feederP99 = 0;  // how late the feeder was, milliseconds
  double feederMaximum = 0;
  double cpuMilliseconds = 0;     // per frame, user and system
  double parentMilliseconds = 0;  // the same of our own process, which feeds and watches
  double pageFaults = 0;          // per frame, the start included
  double peakMegabytes = 0;
  double readyMilliseconds = 0;  // from exec to "ready"
  double fedSeconds = 0;
  double previewBytes = 0;  // per client
};

// Throws std::runtime_error when the helper can't be started or ends early.
PacedResult runPacedLoad(const PacedLoad& load, tools::FrameSource& source);

void print(const PacedLoad& load, client::FrameSize size, const PacedResult& result);

}  // namespace lumora::bench
