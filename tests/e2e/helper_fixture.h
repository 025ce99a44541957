#pragma once

// The real helper, driven through the client library and judged by ffmpeg.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/helper_process.h"
#include "client/stream_client.h"

namespace lumora::tests {

using client::Event;
using client::FrameSize;
using Pixels = std::vector<std::uint8_t>;

struct Rgb {
  int red;
  int green;
  int blue;
};

// A picture in four quarters, each of one colour, in the order a parent feeds it.
Pixels quarters(FrameSize size, Rgb topLeft, Rgb topRight, Rgb bottomLeft, Rgb bottomRight);
Pixels plain(FrameSize size, Rgb colour);

// What a command prints, on both streams, and how it ended unless it was well.
std::string outputOf(const std::string& command);
// What ffmpeg complains about when it decodes the whole file; empty when it is sound.
std::string decodeErrors(const std::string& path);

// A picture as ffmpeg decodes it.
struct Picture {
  FrameSize size;
  Pixels rgb;
  // The colour at (x, y), each 0 to 1 from the top left, to within `tolerance` levels.
  void expect(double x, double y, Rgb colour, int tolerance = 3) const;
};
// The last picture of a file with pictures of one size.
Picture decodeLast(const std::string& path, FrameSize size);

// Receives and acknowledges on a thread of its own, as long as this object lives.
class Watcher {
 public:
  explicit Watcher(std::unique_ptr<client::StreamClient> from);
  int frames() const { return frames_; }

 private:
  std::atomic<int> frames_ = 0;
  std::jthread thread_;
};

class HelperTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the helper and waits for "ready".
  void start(std::vector<std::string> arguments = {},
             std::map<std::string, std::string> environment = {});
  // Connects a client that the helper has admitted.
  std::unique_ptr<client::StreamClient> connectClient();
  std::unique_ptr<client::StreamClient> connect() const;
  // Writes one frame with the next id.
  void feed(FrameSize size, const Pixels& pixels);
  // Feeds frames until `stream` has received and acknowledged `count` frame packets; the packets.
  std::vector<client::Packet> stream(client::StreamClient& from, FrameSize size,
                                     const Pixels& pixels, int count);
  // Waits for an event that satisfies `wanted`; throws when none comes within 20 seconds.
  using Wanted = std::function<bool(const Event&)>;
  Event waitForEvent(const std::string& type, const Wanted& wanted);
  Event waitForStatistics(const Wanted& wanted) { return waitForEvent("stats", wanted); }
  // Ends the input; the exit code, or -1 when it did not end by itself.
  int finish();
  int exitCode();
  std::string writeStream(const std::vector<client::Packet>& packets) const;

  std::filesystem::path folder;
  std::string token = "end-to-end-token-0123456789";
  std::unique_ptr<client::HelperProcess> helper;
  std::uint16_t port = 0;
  std::uint64_t lastID = 0;
};

}  // namespace lumora::tests
