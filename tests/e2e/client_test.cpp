// The client library against the real helper, as an application meets it.

#include <gmock/gmock.h>
#include <lumora/helper.h>
#include <unistd.h>

#include <csignal>

#include "tests/e2e/helper_fixture.h"
#include "tools/resource_use.h"

namespace lumora::tests {
namespace {

constexpr FrameSize small{320, 240};

struct Client : HelperTest {
  client::HelperOptions options() const { return {.program = LUMORA_HELPER, .token = token}; }
  client::TakeOptions takeOptions() const {
    return {.path = path, .resolution = "640x360", .targetFPS = 60};
  }
  // At some sixty frames a second.
  void feed(client::Helper& to, int frames) {
    const Pixels pixels = plain(small, {200, 10, 10});
    for (int i = 0; i < frames; ++i) {
      to.writeFrame(small, ++lastID, pixels);
      std::this_thread::sleep_for(std::chrono::milliseconds(16));
    }
  }
};

TEST_F(Client, ATakeIsAnObjectWithOneEnd) {
  std::vector<client::Event> events;
  client::Helper camera(options(), [&](const client::Event& told) { events.push_back(told); });
  client::StreamClient viewer("127.0.0.1", camera.port());
  viewer.sayHello(camera.token());
  client::Take take = camera.startTake(takeOptions());
  feed(camera, 30);
  EXPECT_TRUE(viewer.receive(20));
  EXPECT_EQ(camera.startTake(takeOptions()).waitForEnd(20)->state, client::TakeState::failed);
  take.stop();
  const auto end = take.waitForEnd(20);
  ASSERT_TRUE(end);
  EXPECT_EQ(end->state, client::TakeState::saved);
  EXPECT_EQ(end->path, path);
  EXPECT_GT(end->frames, 10u);
  EXPECT_EQ(decodeErrors(path), "");
  EXPECT_EQ(camera.stop().status, 0);
  EXPECT_TRUE(std::holds_alternative<client::Exited>(events.back().what));
  for (const client::Event& event : events) {
    EXPECT_THAT(event.line, testing::Not(testing::HasSubstr(token)));
  }
}

TEST_F(Client, AHelperThatIsKilledEndsItsTakeAndNothingElse) {
  client::Helper camera(options());
  client::Take take = camera.startTake(takeOptions());
  feed(camera, 60);
  std::jthread killer([&] { kill(camera.pid(), SIGKILL); });
  feed(camera, 20);
  const auto end = take.waitForEnd(20);
  ASSERT_TRUE(end);
  EXPECT_EQ(end->state, client::TakeState::failed);
  EXPECT_EQ(end->error, "the helper has ended with signal 9");
  EXPECT_EQ(decodeErrors(take.stagingPath()), "");
  EXPECT_EQ(camera.stop().signal, SIGKILL);
  EXPECT_EQ(camera.frames().written + camera.frames().dropped, 80u);
  EXPECT_EQ(camera.startTake(takeOptions()).waitForEnd(0)->state, client::TakeState::failed);
  take.stop();
}

TEST_F(Client, SaysWhyAHelperDoesNotStart) {
  setenv("LUMORA_VIDEO_PATH", "/nowhere/else", 1);
  const std::pair<client::HelperOptions, testing::Matcher<const std::string&>> cases[] = {
      {{}, "there is no program at /nowhere/else"},
      {{.program = "/nowhere/helper"}, "there is no program at /nowhere/helper"},
      {{.program = LUMORA_HELPER, .token = "short"},
       "the helper did not start: invalid helper configuration"},
      {{.program = "/bin/true"}, "the helper did not start: it did not become ready"},
      {{.program = LUMORA_HELPER, .token = token, .arguments = {"--host", "x y"}},
       testing::HasSubstr("video listener")}};
  for (const auto& one : cases) {
    EXPECT_THAT([&] { const client::Helper unwanted(one.first); },
                testing::ThrowsMessage<client::StartError>(one.second));
  }
  unsetenv("LUMORA_VIDEO_PATH");
}

TEST_F(Client, AHelperThatReadsNothingHoldsNobodyUp) {
  client::Helper camera(options());
  kill(camera.pid(), SIGSTOP);
  const FrameSize size{1920, 1080};
  const Pixels pixels = plain(size, {1, 2, 3});
  for (int i = 0; i < 50; ++i) camera.writeFrame(size, ++lastID, pixels);
  EXPECT_EQ(camera.frames().written, 0u);
  EXPECT_GE(camera.frames().dropped, 48u);  // one is being written, one waits
  kill(camera.pid(), SIGCONT);
  EXPECT_EQ(camera.stop().status, 0);
  EXPECT_EQ(camera.frames().written + camera.frames().dropped, 50u);
  EXPECT_EQ(camera.frames().written, 2u);
}

TEST_F(Client, AParentThatThrowsKeepsItsTake) {
  EXPECT_THROW(
      {
        client::Helper camera(options());
        camera.startTake(takeOptions());
        feed(camera, 30);
        throw std::runtime_error("the application's own");
      },
      std::runtime_error);
  EXPECT_EQ(decodeErrors(path), "");
}

TEST_F(Client, AThousandFramesAtFullSpeedAreCountedAndCostNoMemory) {
  client::Helper camera(options());
  const client::Take take = camera.startTake(takeOptions());
  const FrameSize size{1280, 720};
  [[maybe_unused]] const double before = tools::processFigures(getpid()).residentMegabytes;
  while (lastID < 1000) {
    if (auto frame = camera.acquireFrame(size)) camera.publish(*std::move(frame), ++lastID);
  }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(tools::processFigures(getpid()).residentMegabytes, before + 30);
#endif
  EXPECT_EQ(camera.stop().status, 0);
  EXPECT_EQ(camera.frames().written + camera.frames().dropped, 1000u);
  EXPECT_EQ(take.waitForEnd(0)->state, client::TakeState::saved);
}

TEST_F(Client, WhatWouldEndTheHelperIsRefused) {
  client::Helper camera(options());
  for (const FrameSize size : {FrameSize{321, 240}, {0, 0}, {1922, 1080}, {1920, 1082}}) {
    EXPECT_THROW(camera.acquireFrame(size), std::invalid_argument) << size.width;
  }
  const Pixels pixels = plain(small, {1, 2, 3});
  camera.writeFrame(small, 5, pixels);
  EXPECT_THROW(camera.writeFrame(small, 5, pixels), std::invalid_argument);
  EXPECT_THROW(camera.writeFrame({320, 242}, 6, pixels), std::invalid_argument);
  EXPECT_THROW(camera.startTake({.path = "/" + std::string(4096, 'x')}), std::invalid_argument);
  EXPECT_THROW(camera.startTake({.path = "/\xFF.mp4"}), std::invalid_argument);
  EXPECT_EQ(camera.stop().status, 0);
}

}  // namespace
}  // namespace lumora::tests
