// The C++ client library with the real helper, as an application uses it.

#include <gmock/gmock.h>
#include <lumora/helper.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <list>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using client::Take;
using client::TakeState;

constexpr FrameSize small{320, 240};

struct Client : HelperTest {
  client::HelperOptions options() const {
    return {.program = helperProgram(), .token = token, .frames = transport};
  }
  Take startTake(client::Helper& camera) const {
    return camera.startTake({.path = path, .profile = {client::TakeSize::of640x360}});
  }
  // At about 60 frames a second.
  void feed(client::Helper& camera, int frames, FrameSize size = small) {
    for (const Pixels pixels = plain(size, {200, 10, 10}); frames > 0; --frames) {
      camera.writeFrame(size, ++lastID, pixels);
      std::this_thread::sleep_for(std::chrono::milliseconds(16));
    }
  }
};

TEST_F(Client, SavesATakeAndNoEventContainsTheToken) {
  std::vector<client::Event> events;
  std::atomic<client::Helper*> known = nullptr;
  client::Helper camera(options(), [&](const client::Event& told) {
    events.push_back(told);
    if (known.load() != nullptr) {
      EXPECT_THROW(known.load()->stop(), std::logic_error);
    }
  });
  known = &camera;
  client::StreamClient viewer("127.0.0.1", camera.port());
  viewer.sayHello(camera.token());
  EXPECT_EQ(camera.frameTransport(), transport);
  Take take = startTake(camera);
  feed(camera, 30);
  EXPECT_TRUE(viewer.receive(Seconds(20)));
  take.stop();
  const client::Recording end = take.waitForEnd(Seconds(20)).value();
  EXPECT_EQ(end.state, TakeState::saved);
  EXPECT_EQ(end.path, path);
  EXPECT_GT(end.frames, 10u);
  EXPECT_NEAR(end.duration.count(), (*take.stoppedAt() - take.startedAt()).count(), 1e-4);
  const client::Exited exited = camera.stop();
  EXPECT_TRUE(exited.isClean());
  EXPECT_GT(exited.cpuTime.count(), 0);
  viewer.watch([](const Packet&) {});  // returns because the helper has closed the stream
  EXPECT_EQ(viewer.end(), client::StreamEnd::closed);
  EXPECT_TRUE(std::holds_alternative<client::Exited>(events.back().what));
  for (const client::Event& event : events)
    EXPECT_THAT(event.line, testing::Not(testing::HasSubstr(token)));
}

TEST_F(Client, AKilledHelperFailsItsTakeAndDropsItsFrames) {
  client::Helper camera(options());
  Take take = startTake(camera);
  feed(camera, 60);
  kill(camera.pid(), SIGSTOP);
  // If frames go through the pipe, the helper is killed in the middle of the first large frame.
  feed(camera, 2, {1920, 1080});
  kill(camera.pid(), SIGKILL);
  const client::Recording end = take.waitForEnd(Seconds(20)).value();
  EXPECT_EQ(end.state, TakeState::failed);
  EXPECT_EQ(end.error, "the helper has ended with signal 9");
  EXPECT_EQ(decodeErrors(take.stagingPath()), "");
  EXPECT_EQ(camera.stop().signal, SIGKILL);
  EXPECT_EQ(camera.frameCounts().written + camera.frameCounts().dropped, 62u);
  EXPECT_EQ(startTake(camera).waitForEnd(Seconds(0))->state, TakeState::failed);
  take.stop();
}

TEST_F(Client, SaysWhyAStreamHasEnded) {
  client::Helper camera(options());
  const auto endAfter = [&](const std::string& said) {
    client::StreamClient viewer("127.0.0.1", camera.port());
    viewer.sayHello(said);
    EXPECT_FALSE(viewer.receive(Seconds(20)));
    return viewer.end();
  };
  EXPECT_EQ(endAfter("another-token-0123456789"), client::StreamEnd::refused);
  const auto feedUntilSeen = [&](const Watcher& watcher) {
    const client::Deadline deadline(Seconds(20));
    for (const int before = watcher.frames(); watcher.frames() == before;) {
      ASSERT_GT(deadline.left(), Seconds(0));
      feed(camera, 1);
    }
  };
  std::list<Watcher> admitted;
  for (int i = 0; i < 2; ++i) {
    auto viewer = std::make_unique<client::StreamClient>("127.0.0.1", camera.port());
    viewer->sayHello(token);
    feedUntilSeen(admitted.emplace_back(std::move(viewer)));
  }
  for (int i = 0; i < 20; ++i) EXPECT_EQ(endAfter(token), client::StreamEnd::noRoom) << i;
  for (const Watcher& watcher : admitted) feedUntilSeen(watcher);
}

TEST_F(Client, SaysWhyAHelperDoesNotStart) {
  start({"--host", "localhost"});
  const std::string taken = std::to_string(port);
  const std::pair<client::HelperOptions, testing::Matcher<const std::string&>> cases[] = {
      {{.program = helperProgram(), .token = token, .arguments = {"--unknown"}},
       "the helper did not start: invalid helper configuration"},
      // The port is in use at localhost's first address. The helper must not try the next address.
      {{.program = helperProgram(), .arguments = {"--host", "localhost", "--port", taken}},
       "the helper did not start: video listener failed"},
      {{.program = "/bin"}, "there is no program at /bin"},
      {{.program = "/bin/true"}, "the helper did not start: it ended at once with status 0"},
      {{.program = helperProgram(), .token = token, .arguments = {"--host", "x y"}},
       "the helper did not start: video listener initialization failed"}};
  for (const auto& [bad, why] : cases)
    EXPECT_THAT([&options = bad] { const client::Helper unwanted(options); },
                testing::ThrowsMessage<client::StartError>(why));
}

TEST_F(Client, FrameMemoryIsResidentBeforeTheFirstFrameAndDoesNotGrow) {
  const auto resident = [] { return tools::processFigures(getpid()).residentMegabytes; };
  const FrameSize size{1280, 720};
  const Pixels pixels = plain(size, {200, 10, 10});
  auto known = options();
  known.frameSize = size;
  const double before = resident();
  client::Helper camera(known);
  const double touched = resident();
  EXPECT_GT(touched, before + 12);  // there are four slots of 3.7 MB
  while (lastID < (sanitized ? 200 : 1000)) camera.writeFrame(size, ++lastID, pixels);
  EXPECT_LT(sanitized ? 0 : resident(), touched + 20);
  EXPECT_EQ(camera.stop().status, 0);
  EXPECT_EQ(camera.frameCounts().written + camera.frameCounts().dropped, lastID);
}

TEST_F(Client, RefusesWhatWouldEndTheHelper) {
  EXPECT_THROW(const client::Helper unwanted({.frameSize = FrameSize{321, 240}}),
               std::invalid_argument);
  for (const char* bad : {"short", "sixteen or more, but with spaces"})
    EXPECT_THROW(const client::Helper unwanted({.token = bad}), std::invalid_argument);
  const auto ofTheApplication = {"TAVO_FRAME_MEMORY", "TAVO_FRAME_FORMAT", "TAVO_SOUND"};
  for (const char* name : ofTheApplication) setenv(name, "99", 1);
  client::Helper camera(options());
  for (const char* name : ofTheApplication) unsetenv(name);
  for (const FrameSize size : {FrameSize{321, 240}, {0, 0}, {1922, 1080}, {1920, 1082}})
    EXPECT_THROW(static_cast<void>(camera.acquireFrame(size)), std::invalid_argument) << size.width;
  const Pixels pixels = plain(small, {1, 2, 3});
  camera.writeFrame(small, 5, pixels);
  EXPECT_THROW(camera.writeFrame(small, 5, pixels), std::invalid_argument);
  EXPECT_THROW(camera.writeFrame({320, 242}, 6, pixels), std::invalid_argument);
  for (const std::string& bad : {"/" + std::string(2996, 'x') + ".mp4", std::string("/\xFF.mp4")})
    EXPECT_THROW(static_cast<void>(camera.startTake({.path = bad})), std::invalid_argument);
  Take take = startTake(camera);
  for (const double bad : {-31.0, -5.0, 1.0, std::nan("")})
    EXPECT_THROW(take.stop(client::Uptime::now() + Seconds(bad)), std::invalid_argument) << bad;
  auto frame = camera.acquireFrame(small);
  camera.publish(*std::move(frame), 7);
  EXPECT_THROW(camera.publish(*std::move(frame), 8), std::invalid_argument);  // NOLINT: on purpose
  client::Helper other({.program = helperProgram(), .format = {client::FrameEncoding::nv12}});
  EXPECT_THROW(camera.publish(*other.acquireFrame(small), 9), std::invalid_argument);
  EXPECT_THROW(camera.writeSound({}, client::Uptime::now()), std::invalid_argument);
  for (const client::SoundFormat wrong : {client::SoundFormat{7999, 1}, {96001, 2}, {48000, 3}})
    EXPECT_THROW(const client::Helper unwanted({.sound = wrong}), std::invalid_argument);
  Pixels one(4);
  EXPECT_THROW(client::flipRows(one, small), std::invalid_argument);
  EXPECT_EQ(camera.stop().status, 0);
}

TEST_F(Client, ATakeEndsAtItsStopTimeEvenIfTheHelperEndsRightAfterwards) {
  const auto usual = std::signal(SIGCHLD, SIG_IGN);  // the helper's exit status is then lost
  client::Helper camera(options());
  Take take = startTake(camera);
  feed(camera, 31, {1920, 1080});
  // When the command to stop the take arrives, the helper has not encoded the last frame yet.
  kill(camera.pid(), SIGSTOP);
  feed(camera, 1, {1920, 1080});
  take.stop(client::Uptime::now() - Seconds(0.3));
  const std::jthread later([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(camera.pid(), SIGCONT);
  });
  EXPECT_EQ(camera.stop().status, -1);
  EXPECT_EQ(take.latest().state, TakeState::saved);
  EXPECT_NEAR(take.latest().duration.count(), (*take.stoppedAt() - take.startedAt()).count(), 1e-4);
  std::signal(SIGCHLD, usual);
}

using CameraExample = HelperTest;

// With a stand-in for the camera: tests/faults/camera.cpp.
TEST_F(CameraExample, RecordsWhatEachKindOfCameraShows) {
  constexpr Rgb upper{200, 80, 40}, lower{40, 80, 200}, padding{0, 255, 0};
  for (const auto& [name, as] :
       {std::pair{"a.nv12", "bt601:out_range=limited,format=nv12 -f rawvideo"},
        {"a.yuyv", "bt709:out_range=full,format=yuyv422 -f rawvideo"},
        {"a.jpg", "bt601:out_range=full,format=yuvj420p,crop=320:240:0:0 -q:v 2 -f mjpeg"}}) {
    SCOPED_TRACE(name);
    const FrameSize padded{640, 240};
    made(folder / name, padded, quarters(padded, {upper, padding, lower, padding}),
         "vflip," + exactScale + ":out_color_matrix=" + as);
    path = folder / "take.mp4";
    std::filesystem::remove(path);
    const std::string said = outputOf("CAMERA=" + (folder / name).string() +
                                      " LUMORA_VIDEO_PATH=" + tools::shellQuoted(helperProgram()) +
                                      " " + LUMORA_V4L2 + " /dev/camera " + folder.string() + " 1");
    EXPECT_THAT(said, testing::MatchesRegex(path + ": [0-9.]* s \n"));
    expectQuarters(path, {1080, 720}, small, {upper, upper, lower, lower});
    // No picture of the take is broken.
    const std::string greys = outputOf("ffmpeg -v error -nostdin -i " + path +
                                       " -vf crop=2:2:540:180 -f rawvideo -pix_fmt gray -");
    ASSERT_GT(greys.size(), 40u);
    const auto [darkest, brightest] = std::ranges::minmax(greys);
    EXPECT_LE(brightest - darkest, 6);
  }
}

}  // namespace
}  // namespace lumora::tests
