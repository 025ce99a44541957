// Start, readiness, shutdown, and how often statistics are reported.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>

#include "system/posix_process.h"
#include "system/system_platform.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

TEST(Lifecycle, ReportsReadyThenStatisticsThenReads) {
  const auto width = [](int pixels) { return testing::Field(&EncoderSettings::width, pixels); };
  VideoEncoderProbe probe;
  probe.service->start();
  EXPECT_TRUE(probe.network->listener->started);
  EXPECT_THAT(probe.encoders->wanted, testing::ElementsAre(width(640), width(1080)));
  probe.network->listener->changed(ListenerState::ready);
  EXPECT_TRUE(probe.process->lines.empty());  // the encoders are still opening
  EXPECT_FALSE(probe.network->listener->accepts);
  EXPECT_TRUE(probe.encoders->warm.empty());
  probe.encoders->prepared();
  EXPECT_THAT(probe.encoders->warm, testing::ElementsAre(width(1080), width(1920)));
  EXPECT_TRUE(probe.network->listener->accepts);
  ASSERT_GE(probe.process->lines.size(), 2u);
  EXPECT_EQ(probe.process->lines[0],
            R"({"port":4711,"recording_hd":true,"recording_height":720,"recording_mirror":true,)"
            R"("recording_profiles":true,"recording_timebase":true,"recording_width":1080,)"
            R"("type":"ready"})"
            "\n");
  EXPECT_EQ(Json::parse(probe.process->lines[1])["type"], "stats");
  probe.clock->now += 0.5;
  probe.run();  // the wait for the encoders ends only once
  EXPECT_EQ(probe.dispatch->detached.size(), 1u);
}

TEST(Lifecycle, WaitsHalfASecondForTheEncodersUnlessItIsStopped) {
  for (const bool stopped : {false, true}) {
    VideoEncoderProbe probe;
    probe.service->start();
    probe.network->listener->changed(ListenerState::ready);
    probe.clock->now += 0.499;
    probe.run();
    EXPECT_TRUE(probe.process->lines.empty());
    if (stopped) probe.signal(SIGTERM);
    probe.clock->now += 0.001;
    probe.run();
    EXPECT_EQ(probe.process->takeEvents("ready").size(), stopped ? 0u : 1u);
    EXPECT_EQ(probe.dispatch->detached.size(), stopped ? 0u : 1u);
  }
}

TEST(Lifecycle, AListenerWithoutAPortEndsWithOne) {
  VideoEncoderProbe probe;
  probe.network->listener->boundPort = 0;
  probe.service->start();
  probe.network->listener->changed(ListenerState::ready);
  EXPECT_EQ(probe.error(), "listener has no port");
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
}

using ReadyLifecycle = ServiceTest;

TEST_F(ReadyLifecycle, ASignalTearsEverythingDownOnce) {
  const auto client = probe.connectClient();
  probe.feed(1);
  probe.process->takeEvents();
  probe.signal(SIGTERM);
  probe.signal(SIGINT);
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
  EXPECT_TRUE(probe.network->listener->cancelled);
  for (const auto& [number, cancelled] : probe.process->signalsCancelled) EXPECT_TRUE(*cancelled);
  EXPECT_TRUE(client->cancelled);
  EXPECT_EQ(probe.lastSession().flushes, 1);
  EXPECT_TRUE(probe.lastSession().invalidated);
  // Whatever arrives afterwards changes nothing.
  probe.network->listener->changed(ListenerState::failed);
  probe.tick();
  EXPECT_FALSE(probe.queue->tick);
  EXPECT_TRUE(probe.connect()->cancelled);
  probe.lastSession().answer(0, keySample());
  probe.run();
  EXPECT_TRUE(probe.process->lines.empty());
  EXPECT_FALSE(probe.isRawBusy());
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

TEST_F(ReadyLifecycle, AFullOutputLosesALineAndABrokenOneEndsTheRun) {
  probe.failures->fail(Call::writeOutput, 1, -EAGAIN);
  (*probe).emitStats(true);
  EXPECT_TRUE(probe.process->lines.empty());
  EXPECT_TRUE(probe.process->exitCodes.empty());
  probe.failures->fail(Call::writeOutput, 2, -EPIPE, /*more=*/9);
  (*probe).emitStats(true);
  EXPECT_EQ(probe.process->lines.size(), 1u);
  (*probe).emitStats(true);
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

TEST(Statistics, AtMostOneASecondUnlessForced) {
  VideoEncoderProbe probe;
  const auto report = [&probe](double later, bool forced) {
    probe.clock->now += later;
    (*probe).emitStats(forced);
    return probe.process->takeEvent("stats");
  };
  const Json first = report(0, true);
  expectKeys(first, {{"max_pending_acks", 0}, {"preview_width", 0}});
  EXPECT_EQ(first.size(), 25u);  // 8 core keys and 17 diagnostics
  EXPECT_TRUE(report(0.3, false).empty());
  EXPECT_EQ(report(0, true).size(), 8u);    // too soon for diagnostics
  EXPECT_TRUE(report(0.9, false).empty());  // the forced one restarted the second
  EXPECT_EQ(report(0.2, false).size(), 25u);
}

// An encoder that hangs, behind a service on the real queue and in a real process.
struct HangingSession : FakeSession {
  using FakeSession::FakeSession;
  void completeFrames() override {
    std::fputs("flushing", stderr);
    pause();
  }
};

TEST(HangDeathTest, AShutdownEndsTheProcessWithItsCodeAllTheSame) {
  const auto hang = [](bool flushing) {
    const Platform platform = makeSystemPlatform("software");
    const auto service = std::make_shared<VideoEncoder>(Configuration(), platform);
    Failures none;
    VideoEncoderProbe::setSession(*service, std::make_shared<HangingSession>(2, 2, none));
    platform.stateQueue->async([&] {
      service->start();
      if (flushing) return service->shutdown(7);
      raise(SIGTERM);
      std::fputs("asked for", stderr);
      pause();
    });
    for (;;) pause();
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // there may be threads already
  EXPECT_EXIT(hang(true), testing::ExitedWithCode(7), "flushing");
  EXPECT_EXIT(hang(false), testing::ExitedWithCode(0), "asked for");
  const auto askTwice = [] {
    PosixProcess process;
    process.armWatchdog(0.1, 7);
    process.armWatchdog(60, 3);
    for (;;) pause();
  };
  EXPECT_EXIT(askTwice(), testing::ExitedWithCode(7), "");
  const auto decide = [](bool isAsked) {
    PosixProcess process;
    if (isAsked) process.armWatchdog(60, 3);
    process.rearmWatchdog(0.1, 7);
    process.armWatchdog(60, 3);
    for (;;) pause();
  };
  EXPECT_EXIT(decide(true), testing::ExitedWithCode(7), "");
  EXPECT_EXIT(decide(false), testing::ExitedWithCode(7), "");
}

struct PipedInput {
  PipedInput() { EXPECT_TRUE(pipe(ends) == 0 && dup2(ends[0], STDIN_FILENO) == STDIN_FILENO); }
  ~PipedInput() {
    dup2(usual, STDIN_FILENO);
    for (const int end : {usual, ends[0], ends[1]}) close(end);
  }

  int usual = dup(STDIN_FILENO);
  int ends[2] = {-1, -1};
};

TEST(SystemProcess, EnlargesAPipeAndNeverShrinksIt) {
  for (const auto& [before, after] : {std::pair{1 << 16, 1 << 20}, {1 << 21, 1 << 21}}) {
    const PipedInput input;
    // More than a megabyte takes a privilege.
    if (fcntl(input.ends[0], F_SETPIPE_SZ, before) != before) {
      std::puts("not tested: a pipe that is larger already");
      continue;
    }
    const PosixProcess process;
    EXPECT_EQ(fcntl(input.ends[0], F_GETPIPE_SZ), after);
  }
}

TEST(SystemProcess, WaitsForInputThatDoesNotBlock) {
  PipedInput input;
  fcntl(input.ends[0], F_SETFL, O_NONBLOCK);
  PosixProcess process;
  std::jthread parent([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(write(input.ends[1], "ab", 2), 2);
    close(std::exchange(input.ends[1], -1));
  });
  std::uint8_t space[3];
  EXPECT_EQ(process.readInput(space), 2);
  EXPECT_EQ(process.readInput(space), 0);
}

}  // namespace
}  // namespace lumora
