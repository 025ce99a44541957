// The process as its parent sees it: launch, input, events, exit status.

#include <gmock/gmock.h>

#include <csignal>

#include "tests/e2e/helper_fixture.h"
#include "tools/programs.h"

namespace lumora::tests {
namespace {

struct Input : HelperTest {
  // Starts without waiting for anything: the first line, which is to be this error, and status 1.
  void expectRefusal(const std::vector<std::string>& arguments, const std::string& line,
                     const std::map<std::string, std::string>& environment = {}) {
    helper = std::make_unique<HelperProcess>(
        client::LaunchOptions{helperProgram(), token, arguments, environment});
    // A statistics report may come before the listener knows its fate.
    std::string first = helper->nextLine(20).value_or("");
    while (first.find("\"stats\"") != std::string::npos) first = helper->nextLine(20).value_or("");
    EXPECT_EQ(first, line);
    EXPECT_EQ(exitCode(), 1);
  }
};

TEST_F(Input, ListensWhereItIsToldOrNotAtAll) {
  const char* invalid = R"({"type":"error","message":"invalid helper configuration"})";
  expectRefusal({"--port"}, invalid);
  expectRefusal({}, invalid, {{"TAVO_FRAME_MEMORY", "99"}});
  expectRefusal({"--host", "not a host"},
                R"({"type":"error","message":"video listener initialization failed"})");
  const char* failed = R"({"message":"video listener failed","type":"error"})";
  expectRefusal({"--host", "203.0.113.7"}, failed);
  start();
  const auto running = std::move(helper);
  expectRefusal({"--port", std::to_string(port)}, failed);
  start({"--host", "localhost"});
  // Not silently on another address of that name.
  const auto named = std::move(helper);
  expectRefusal({"--host", "localhost", "--port", std::to_string(port)}, failed);
}

TEST_F(Input, AFloodOfFramesIsDroppedCountedAndCostsNoMemory) {
  start();
  const FrameSize size{1920, 1080};
  const Pixels pixels = plain(size, {40, 80, 120});
  const Watcher watcher(connectClient());
  // The take encodes a frame for longer than the next one needs to arrive.
  startTake({{"resolution", "1920x1080"}, {"target_fps", 60}});
  for (int i = 0; i < 400; ++i) feed(size, pixels);
  const auto after = helper->waitForEvent("stats", [](const Event& event) {
    return event["dropped_raw"].get<int>() + event["encoded_frames"].get<int>() == 400;
  });
  EXPECT_GT(after["dropped_raw"], 0);
  EXPECT_GT(after["encoded_frames"], 10);
  if (!sanitized) {
    EXPECT_LT(tools::peakMegabytes(helper->pid()), 150);
  }
}

TEST_F(Input, AParentThatNeverReadsEventsBlocksNothing) {
  start();
  // Every client forces two reports, of which the pipe holds some 400.
  for (int i = 0; i < 300; ++i) {
    const auto viewer = connect();
    viewer->sayHello(token);
    if (i % 3 == 0) continue;  // goes by itself
    viewer->sendText("bye\n");
    while (!viewer->isClosed()) viewer->receive(1);
  }
  const auto viewer = connect();
  viewer->sayHello(token);
  EXPECT_FALSE(stream(*viewer, {320, 240}, plain({320, 240}, {1, 2, 3}), 5).empty());
  const auto left = helper->waitForEvent(
      "stats", [](const Event& event) { return event["dropped_peers"] == 300; });
  expectKeys(left, {{"clients", 1}, {"pending_hello", 0}});
}

// A mask and what is ignored are inherited.
TEST_F(Input, SignalsThatItsParentBlockedEndItAndAnIgnoredHangUpDoesNot) {
  sigset_t all, before;
  sigfillset(&all);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    pthread_sigmask(SIG_SETMASK, &all, &before);
    start();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    helper->sendSignal(signal);
    EXPECT_EQ(exitCode(), 0) << signal;
  }
  const auto usual = std::signal(SIGHUP, SIG_IGN);
  start();
  std::signal(SIGHUP, usual);
  helper->sendSignal(SIGHUP);
  EXPECT_EQ(stream(*connectClient(), {320, 240}, plain({320, 240}, {1, 2, 3}), 3).size(), 4u);
}

TEST_F(Input, HasWordsForTooFewDescriptors) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer looks at memory through pipes of its own";
#endif
  bool refused = false;
  bool saved = false;
  for (int limit = 4; !saved; ++limit) {
    SCOPED_TRACE(limit);
    ASSERT_LT(limit, 64);
    const std::string script = "ulimit -n " + std::to_string(limit) + "; exec \"$0\"";
    helper = std::make_unique<HelperProcess>(
        client::LaunchOptions{"/bin/sh", token, {"-c", script, helperProgram()}, {}});
    const auto first = helper->nextLine(20);
    if (!first || first->find("video listener ") != std::string::npos) {
      EXPECT_EQ(exitCode(), first ? 1 : 127);  // no library could be loaded
      continue;
    }
    ASSERT_THAT(*first, testing::Not(testing::HasSubstr("error")));
    const Pixels pixels = plain({320, 240}, {9, 9, 9});
    startTake();
    for (std::uint64_t i = 1; i < 4; ++i) helper->copyFrame({320, 240}, i, pixels);
    stopTake();
    helper->closeInput();
    while (const auto event = helper->nextEvent(20)) {
      if (event->value("type", "") != "recording") continue;
      const std::string state = event->at("state");
      EXPECT_EQ(state == "failed", event->at("error") != "");
      refused = refused || event->at("error") == "Too many open files";
      saved = saved || state == "saved";
    }
    EXPECT_GE(exitCode(), 0);
  }
  EXPECT_TRUE(refused);
}

TEST_F(Input, WithoutTheRequiredEncoderTheFirstPreviewFrameFails) {
  for (const auto& [choice, words] :
       {std::pair{"no-such-encoder", "hardware encoder creation failed (-"},
        {"software:no-such-preset", "encoder preparation failed (-"}}) {
    start({}, {{"TAVO_H264_ENCODER", choice}});
    const auto viewer = connectClient();
    feed({320, 240}, plain({320, 240}, {1, 2, 3}));
    EXPECT_THAT(helper->waitForEvent("error").at("message").get<std::string>(),
                testing::StartsWith(words));
    EXPECT_EQ(exitCode(), 1);
  }
}

}  // namespace
}  // namespace lumora::tests
