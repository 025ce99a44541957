#pragma once

// Starts the real helper and feeds it. ffmpeg judges its streams and movies.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <lumora/stream_client.h>
#include <lumora/uptime.h>
#include "client/child_process.h"
#include "client/frame_slots.h"
#include "tools/frame_source.h"
#include "tools/programs.h"

namespace lumora::tests {

using client::FrameSize;
using client::Packet;
using client::Seconds;
using tools::decodeErrors;
using tools::outputOf;
using Event = nlohmann::json;
using Pixels = std::vector<std::uint8_t>;

// True in a build with a sanitizer, which makes everything slow and has a heap of its own.
inline constexpr bool sanitized = LUMORA_SANITIZED;

// The uptime in seconds, as commands carry it.
inline double uptime() { return client::Uptime::now().time_since_epoch().count(); }

// The helper as a plain child process: records go in, events come out as JSON. With it a test can
// also do what `client::Helper` never does, such as close its output or leave its events unread.
// Throws Event::parse_error for a line that is not JSON.
struct HelperProcess : client::ChildProcess {
  using ChildProcess::ChildProcess;

  bool writeCommand(const Event& command) {
    const std::string record = client::commandRecord(command.dump());
    return writeBytes({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()});
  }
  // The next event; empty when none came in time or the output has ended.
  std::optional<Event> nextEvent(Seconds limit) {
    if (const auto line = nextLine(limit)) return Event::parse(*line);
    return std::nullopt;
  }
  // The next event of this "type" for which `wanted` is true. Throws std::runtime_error if none
  // comes within 20 seconds or the output ends.
  using Wanted = std::function<bool(const Event&)>;
  Event waitForEvent(
      const std::string& type, const Wanted& wanted = [](const Event&) { return true; }) {
    const client::Deadline deadline(Seconds(20));
    while (const auto event = nextEvent(deadline.left()))
      if (event->at("type") == type && wanted(*event)) return *event;
    throw std::runtime_error("no awaited \"" + type + "\" event");
  }
};

// The program under test: LUMORA_HELPER in the environment, or the built helper.
std::string helperProgram();

struct Rgb {
  std::uint8_t red, green, blue;
};
// A picture's colours: top left, top right, bottom left, bottom right.
using Quarters = std::array<Rgb, 4>;
inline constexpr Quarters usualColours = {
    {{200, 30, 30}, {30, 200, 30}, {30, 30, 200}, {90, 90, 90}}};

// RGBA pictures, the bottom row first.
Pixels quarters(FrameSize size, const Quarters& colours = usualColours);
inline Pixels plain(FrameSize size, Rgb one) { return quarters(size, {one, one, one, one}); }
std::string text(FrameSize size);  // "640x360"
Pixels bytesOf(const std::string& path);
std::string fileOf(const std::string& path, const Pixels& bytes);  // returns the path

// A filter that converts colours exactly. Options such as ":out_range=full" may follow.
inline const std::string exactScale = "scale=flags=accurate_rnd+full_chroma_int+full_chroma_inp";
// Runs ffmpeg, and expects that it prints no error.
void ffmpeg(const std::string& arguments);
// Lets ffmpeg convert an RGBA picture to `file`. `arguments` begins with the filters, without
// "-vf". Returns the bytes of the file.
Pixels made(const std::string& file, FrameSize size, const Pixels& picture,
            const std::string& arguments);

// Expects that ffmpeg reads the file without errors, and that its last picture has this `size`. The
// picture must show a frame of the size `camera` whose quarters have these colours. If `size` has
// another shape than `camera`, the frame must lie between black bars.
void expectQuarters(const std::string& path, FrameSize size, FrameSize camera,
                    const Quarters& colours = usualColours);

// What libavcodec decodes of a movie before the first error.
struct Decoded {
  int frames = 0;
  double pictures = 0;  // the end of the last picture, in seconds; 0: there is none
  double sound = 0;     // the end of the last sound
};
Decoded decode(const std::string& path);
inline int countFrames(const std::string& path) { return decode(path).frames; }

// What ffprobe says of the first stream of a file. Throws when it has none.
Event probe(const std::string& path);

// Expects these keys and values in `event`, which may have more.
void expectKeys(const Event& event, const Event& wanted);

inline const Event smallTake = {{"resolution", "640x360"}, {"target_fps", 60}};

// Receives packets and acknowledges frames on its own thread.
class Watcher {
 public:
  explicit Watcher(std::unique_ptr<client::StreamClient> from)
      : thread_([this, viewer = std::move(from)](const std::stop_token& stop) {
          const auto keep = [this](Packet packet) {
            frames_ += packet.type == Packet::Type::frame ? 1 : 0;
            packets_.push_back(std::move(packet));
          };
          viewer->watch(keep, [&] { return !stop.stop_requested(); });
        }) {}
  int frames() const { return frames_; }
  // Stops receiving. Returns all packets so far.
  std::vector<Packet> finish() {
    thread_ = {};
    return std::move(packets_);
  }

 private:
  std::atomic<int> frames_ = 0;
  std::vector<Packet> packets_;  // the thread uses them until it ends
  std::jthread thread_;
};

class HelperTest : public testing::Test {
 protected:
  using Arguments = std::vector<std::string>;
  using Environment = std::map<std::string, std::string>;

  void SetUp() override;
  void TearDown() override;

  // Starts the helper and waits for "ready". The helper must exit with 0 at the next start or at
  // the end of the test, unless the test takes the exit code itself.
  void start(Arguments arguments = {}, Environment environment = {});
  // Starts the helper, with every signal blocked, and waits for nothing.
  void launch(Arguments arguments, Environment environment);
  // Waits until the helper ends. Returns its exit status, or -1 after a signal or after 20 s.
  int exitCode();
  int finish() {
    helper->closeInput();
    return exitCode();
  }

  std::unique_ptr<client::StreamClient> connect() const {
    return std::make_unique<client::StreamClient>("127.0.0.1", port);
  }
  // Connects the first client and waits until the helper has admitted it.
  std::unique_ptr<client::StreamClient> connectClient();
  // Feeds one frame. Waits for a slot, if frames go through shared memory.
  void feed(FrameSize size, const Pixels& pixels);
  // Feeds frames at a steady rate until `isEnough` returns true. Fails after 100 s. The frames show
  // these pictures in turn, or the usual colours if there are none.
  void feedUntil(const std::function<bool()>& isEnough, FrameSize size = {640, 360},
                 const std::vector<Pixels>& pictures = {}, double framesPerSecond = 60);
  void feedPaced(int count, double framesPerSecond = 60, FrameSize size = {640, 360},
                 const std::vector<Pixels>& pictures = {}) {
    feedUntil([&] { return count-- == 0; }, size, pictures, framesPerSecond);
  }
  // Feeds stereo sound of 48 kHz, captured up to `until` on the helper's clock, in records of
  // 20 ms. The sound is silence before `loudFrom`, then a tone of 1 kHz.
  void feedSound(double until, double loudFrom = 0);
  // Feeds this picture until a new client has `count` frames. Returns all that the client got.
  std::vector<Packet> stream(FrameSize size, const Pixels& picture, int count);
  std::string writeStream(const std::vector<Packet>& packets) const;  // returns the file's path

  // These start, stop and save the take at `path`. The keys are added to the command. `saveTake`
  // expects a movie without errors.
  void startTake(Event keys = Event::object()) {
    keys.update({{"type", "record_start"}, {"id", takeID}, {"path", path}});
    helper->writeCommand(keys);
  }
  void stopTake(Event keys = Event::object()) {
    keys.update({{"type", "record_stop"}, {"id", takeID}});
    helper->writeCommand(keys);
  }
  Event saveTake(const Event& keys = Event::object()) {
    stopTake(keys);
    Event saved = waitForTake("saved");
    EXPECT_EQ(decodeErrors(path), "");
    return saved;
  }
  // The take's next event with this "state". Throws if the take ends in another state, or if no
  // such event comes within 20 s.
  Event waitForTake(const std::string& state);
  // Expects a failed take to have kept an ordinary movie, and returns its path.
  std::string expectKept(const Event& failed) const;
  // Gives the next take a new ID and this path. Call it at most fifteen times per helper.
  void turnTo(const std::filesystem::path& file) {
    path = file;
    takeID.back() = takeID.back() == '9' ? 'A' : static_cast<char>(takeID.back() + 1);
  }
  std::string stagingPath() const { return path + "." + takeID + ".partial"; }

  std::filesystem::path folder;
  std::string token = "end-to-end-token-0123456789";
  client::FrameTransport transport = tools::frameTransport(client::FrameTransport::pipe);
  client::FrameFormat format;                 // of the next helper's frames
  std::shared_ptr<client::FrameSlots> slots;  // of the helper; null: frames go through its pipe
  std::unique_ptr<HelperProcess> helper;
  std::uint16_t port = 0;
  std::uint64_t lastID = 0;
  double heardUntil = 0;  // when the next sound begins; 0: not known yet
  std::string path;
  std::string takeID = "6F9619FF-8B86-D011-B42D-00CF4FC96400";
};

}  // namespace lumora::tests
