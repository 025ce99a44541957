// The helper as its parent sees it: launch, input, events, exit status. Also how it serves a client
// while other clients misbehave.

#include <unistd.h>

#include <csignal>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Input = HelperTest;

TEST_F(Input, ExitsWithOneIfItsFrameMemoryDoesNotExist) {
  launch({}, {{"TAVO_FRAME_MEMORY", "99"}});
  EXPECT_EQ(helper->waitForEvent("error").at("message"), "invalid helper configuration");
  EXPECT_EQ(exitCode(), 1);
}

TEST_F(Input, AFloodOfFramesIsDroppedAndCountedAndCostsNoMemory) {
  start();
  const FrameSize size{1920, 1080};
  const Pixels pixels = plain(size, {40, 80, 120});
  const Watcher watcher(connectClient());
  // The take needs longer to encode a frame than the next frame needs to arrive.
  startTake({{"resolution", "1920x1080"}, {"target_fps", 60}});
  const int all = sanitized ? 150 : 400;
  for (int i = 0; i < all; ++i) feed(size, pixels);
  const auto after = helper->waitForEvent("stats", [all](const Event& event) {
    return event.at("dropped_raw").get<int>() + event.at("encoded_frames").get<int>() == all;
  });
  EXPECT_GT(after["dropped_raw"], 0);
  EXPECT_GT(after["encoded_frames"], all / 40);
  EXPECT_LT(sanitized ? 0 : tools::peakMegabytes(helper->pid()), 150);
}

TEST_F(Input, AnIgnoredHangUpStaysIgnored) {
  const auto usual = std::signal(SIGHUP, SIG_IGN);  // the helper inherits that
  start();
  std::signal(SIGHUP, usual);
  helper->sendSignal(SIGHUP);
  stream({320, 240}, plain({320, 240}, {1, 2, 3}), 3);
}

TEST_F(Input, ExitsWithOneAtTheFirstFrameIfItsEncoderCannotStart) {
  for (const auto& [choice, words] :
       {std::pair{"no-such-encoder", "hardware encoder creation failed (-"},
        {"software:no-such-preset", "encoder preparation failed (-"}}) {
    start({}, {{"TAVO_H264_ENCODER", choice}});
    const auto viewer = connectClient();
    feedPaced(1);
    const std::string said = helper->waitForEvent("error").at("message");
    EXPECT_EQ(said.substr(0, std::string_view(words).size()), words);
    EXPECT_EQ(exitCode(), 1);
  }
}

TEST_F(Input, StrangersGetNothingAndDisturbNobody) {
  start();
  Watcher watcher(connectClient());
  startTake();
  // While the camera runs, nobody reads the events. The pipe has room for a minute of events.
  std::jthread camera(
      [this](const std::stop_token& stop) { feedUntil([&] { return stop.stop_requested(); }); });
  std::vector<std::unique_ptr<client::StreamClient>> strangers;
  const auto newcomer = [&]() -> auto& { return *strangers.emplace_back(connect()); };
  newcomer().sendText(std::string(4000, '[') + "\n");
  for (auto& trickler = newcomer(); trickler.sendText("["); usleep(100'000)) continue;
  for (auto& flooder = newcomer(); flooder.sendText(std::string(4096, 'x'));) continue;
  for (int i = 0; i < 500; ++i) connect();  // leaves at once
  for (int i = 0; i < 50; ++i) newcomer();
  for (const auto& stranger : strangers) {
    EXPECT_FALSE(stranger->receive(Seconds(20)));
    EXPECT_TRUE(stranger->isClosed());
  }
  camera = {};
  const int before = watcher.frames();
  EXPECT_GT(before, 20);
  feedUntil([&] { return watcher.frames() > before; });
  saveTake();
  helper->waitForEvent("stats", [](const Event& event) {
    return event.at("clients") == 1 && event.at("pending_hello") == 0;
  });
  EXPECT_LT(sanitized ? 0 : tools::peakMegabytes(helper->pid()), 200);
}

TEST_F(Input, ADroppedClientThatReadsNothingLeavesNoSocketInTheKernel) {
  start();
  const auto client = connectClient();
  feedPaced(60);
  helper->waitForEvent("stats", [](const Event& event) { return event.at("dropped_peers") == 1; });
  EXPECT_EQ(outputOf("awk -v port=" + std::to_string(port) +
                     R"( '$2 ~ sprintf(":%04X$", port) && $4 != "0A"' /proc/net/tcp)"),
            "");
}

}  // namespace
}  // namespace lumora::tests
