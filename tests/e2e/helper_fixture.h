#pragma once

// The real helper as a plain child process, judged by ffmpeg.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <lumora/stream_client.h>
#include <lumora/uptime.h>
#include "tests/e2e/helper_process.h"
#include "tools/frame_source.h"
#include "tools/programs.h"

namespace lumora::tests {

using client::FrameSize;
using client::uptime;
using tools::decodeErrors;
using tools::outputOf;
using Pixels = std::vector<std::uint8_t>;

// A sanitizer makes everything slow and has a heap of its own.
#ifdef LUMORA_SANITIZED
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

// The program that is tested: the one that was built, or another one that LUMORA_HELPER names.
std::string helperProgram();

struct Rgb {
  std::uint8_t red, green, blue;
};

// A picture in four quarters, each of one colour, in the order a parent feeds it.
Pixels quarters(FrameSize size, Rgb topLeft, Rgb topRight, Rgb bottomLeft, Rgb bottomRight);
Pixels plain(FrameSize size, Rgb colour);

struct Picture {
  FrameSize size;
  Pixels rgb;
  // The colour at (x, y), each 0 to 1 from the top left, to within `tolerance` levels.
  void expect(double x, double y, Rgb colour, int tolerance = 3) const;
};
// The last picture of a file with pictures of one size.
Picture decodeLast(const std::string& path, FrameSize size);

// How many pictures libavcodec makes of a file before the first that it can't.
int countFrames(const std::string& path);

// What ffprobe says of the only stream of a file. Throws when it has none.
Event probe(const std::string& path);

// That `event` has these keys and values, whatever else it has.
void expectKeys(Event event, const Event& wanted);

// Receives and acknowledges on a thread of its own, as long as this object lives.
class Watcher {
 public:
  explicit Watcher(std::unique_ptr<client::StreamClient> from);
  int frames() const { return frames_; }
  // All that it has received; no more comes.
  std::vector<client::Packet> finish();

 private:
  std::atomic<int> frames_ = 0;
  std::vector<client::Packet> packets_;  // the thread's
  std::jthread thread_;
};

class HelperTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  void endHelper() { EXPECT_TRUE(!helper || finish() == 0); }

  // Starts the helper and waits for "ready". It has to end with 0 at the end of its input, which
  // comes with the next start or the test's end, unless the test waits for another end.
  void start(std::vector<std::string> arguments = {},
             std::map<std::string, std::string> environment = {});
  // Connects a client that the helper has admitted.
  std::unique_ptr<client::StreamClient> connectClient();
  std::unique_ptr<client::StreamClient> connect() const {
    return std::make_unique<client::StreamClient>("127.0.0.1", port);
  }
  void feed(FrameSize size, const Pixels& pixels) {
    ASSERT_TRUE(helper->copyFrame(size, ++lastID, pixels));
  }
  // Feeds frames until `stream` has received and acknowledged `count` frame packets; the packets.
  std::vector<client::Packet> stream(client::StreamClient& from, FrameSize size,
                                     const Pixels& pixels, int count);
  // Ends the input; the exit code, or -1 when it did not end by itself.
  int finish() {
    helper->closeInput();
    return exitCode();
  }
  int exitCode();
  std::string writeStream(const std::vector<client::Packet>& packets) const;

  // Start and stop the take at `path`, with further keys of the command. What is saved has to be a
  // sound movie there; the "saved" event.
  void startTake(const Event& keys = Event::object()) { helper->startTake(takeID, path, keys); }
  void stopTake(const Event& keys = Event::object()) { helper->stopTake(takeID, keys); }
  Event saveTake(const Event& keys = Event::object());
  // Feeds `count` frames at a steady rate, of these pictures in turn or of one.
  void feedPaced(int count, double framesPerSecond, FrameSize size = {640, 360},
                 std::vector<Pixels> pictures = {});
  // Turns to another take of the same run: what is still said of the one before counts no more.
  void turnTo(const std::filesystem::path& file) {
    path = file;
    ++takeID.back();  // nine times at most
  }
  // Records `count` frames at a steady rate; the "saved" event.
  Event take(int count, double framesPerSecond);
  Event waitForTake(const std::string& state) { return helper->waitForTake(takeID, state); }
  std::string stagingPath() const { return path + "." + takeID + ".partial"; }

  std::filesystem::path folder;
  std::string token = "end-to-end-token-0123456789";
  client::FrameTransport transport = tools::frameTransport(client::FrameTransport::pipe);
  std::shared_ptr<client::FrameSlots> slots;  // of the helper; null: pictures go through its pipe
  std::unique_ptr<HelperProcess> helper;
  std::uint16_t port = 0;
  std::uint64_t lastID = 0;
  std::string path;
  std::string takeID = "6F9619FF-8B86-D011-B42D-00CF4FC96400";
};

}  // namespace lumora::tests
