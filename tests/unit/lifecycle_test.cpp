// Options, event lines, start, readiness, shutdown, and how often statistics are reported.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>

#include "app/event.h"
#include "system/posix_process.h"
#include "system/system_platform.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Arguments = std::vector<std::string>;
const std::string goodToken = "abcdefghijklmnop";

std::optional<Configuration> parse(const Arguments& arguments, Environment extra = {}) {
  extra.emplace("TAVO_VIDEO_TOKEN", goodToken);
  return options(arguments, extra);
}

TEST(Options, OverrideEarlierOptionsAndTheEnvironmentAndDefaults) {
  EXPECT_FALSE(options({}, {}));
  EXPECT_EQ(parse({}), (Configuration{"127.0.0.1", 0, goodToken, 640, 360, false}));
  EXPECT_EQ(
      parse({"--preview-width", "320", "--host", "::1", "--port", "+80", "--host", "localhost"},
            {{"TAVO_PREVIEW_WIDTH", "400"},
             {"TAVO_PREVIEW_HEIGHT", "300"},
             {"TAVO_FRAME_MEMORY", "12"},
             {"TAVO_FRAME_FORMAT", "nv21"},
             {"TAVO_SOUND", "44100x2"}}),
      (Configuration{"localhost", 80, goodToken, 320, 300, true, 12, *parseFrameFormat("nv21"),
                     SoundFormat{44100, 2}}));
}

TEST(Options, AcceptTheLimitsAndRefuseWhatLiesBeyond) {
  const auto expect = [](bool accepted, const std::string& name, const Arguments& values) {
    for (const std::string& value : values) {
      const bool isOption = name.starts_with("--");
      const auto parsed = isOption ? parse({name, value}) : parse({}, {{name, value}});
      EXPECT_EQ(parsed.has_value(), accepted) << name << " " << value;
    }
  };
  expect(true, "--port", {"0", "-0", "65535"});
  expect(false, "--port", {"65536", "-1", "8o", "", " 80", "+-8", "99999999999999999999"});
  expect(true, "--preview-width", {"2", "+360", "640"});
  expect(false, "--preview-width", {"642", "641", "639", "0", "-2", "64.0", "0x40"});
  expect(true, "--preview-height", {"360"});
  expect(false, "--preview-height", {"362"});
  expect(true, "--host", {std::string(253, 'a')});
  expect(false, "--host", {std::string(254, 'a'), ""});
  expect(false, "--verbose", {"1"});
  expect(false, "TAVO_PREVIEW_WIDTH", {"400"});  // without a height
  expect(false, "TAVO_FRAME_MEMORY", {"", "x", "3 ", "99999999999"});
  expect(false, "TAVO_FRAME_FORMAT", {"", "NV12", "top", "nv12,", ",nv12", "nv12, top"});
  expect(false, "TAVO_FRAME_FORMAT", {"nv12,nv12", "nv12,top,bottom", "nv12,full,limited"});
  expect(false, "TAVO_FRAME_FORMAT", {"rgba,bt709", "mjpeg,full"});
  expect(true, "TAVO_SOUND", {"8000x1", "96000x2"});
  expect(false, "TAVO_SOUND", {"", "48000", "48000x3", "48000x02", " 48000x2", "048000x2"});
  expect(false, "TAVO_SOUND", {"7999x2", "96001x2", "-48000x2", "4294975296x2"});
  expect(true, "TAVO_VIDEO_TOKEN", {"0_-aZ9aaaaaaaaaa", std::string(128, '-')});
  expect(false, "TAVO_VIDEO_TOKEN", {std::string(15, 'a'), std::string(129, 'a'), goodToken + "="});
  expect(false, "TAVO_VIDEO_TOKEN", {goodToken + "/", goodToken + " ", goodToken + "\xC3\xA9"});
  EXPECT_FALSE(parse({"--port"}));
  EXPECT_FALSE(parse({"--preview-height", "300"}, {{"TAVO_PREVIEW_WIDTH", "400"}}));
  EXPECT_FALSE(parse({}, {{"TAVO_PREVIEW_WIDTH", "400"}, {"TAVO_PREVIEW_HEIGHT", ""}}));
}

TEST(Events, HaveSortedKeysAndEscapedSlashesAndALimitedLength) {
  EXPECT_EQ(eventLine({{"type", "x"}, {"hd", true}, {"path", "/a\"b\\\n\xC3\xA9"}}),
            "{\"hd\":true,\"path\":\"\\/a\\\"b\\\\\\n\xC3\xA9\",\"type\":\"x\"}\n");
  const auto sized = [](std::size_t bytes, const std::string& end = "") {
    const std::size_t frame = std::string("{'a':''}\n").size() + end.size();
    return eventLine({{"a", std::string(bytes - frame, 'x') + end}});
  };
  EXPECT_EQ(sized(4096)->size(), 4096u);
  EXPECT_FALSE(sized(4097));
  EXPECT_FALSE(sized(4096, "/"));  // its escape counts
  EXPECT_FALSE(eventLine({{"a", "\xFF"}}));
  std::string accents;
  for (int i = 0; i < 241; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(errorEvent(accents)["message"], accents.substr(0, 480));
}

TEST(Lifecycle, SaysReadyOnceAnEncoderIsOpenOrAfterHalfASecondAndThenReads) {
  for (const bool inTime : {true, false}) {
    VideoEncoderProbe probe;
    probe.service->start();
    probe.network->changed(ListenerState::ready);
    probe.runAt(1000.499);
    EXPECT_TRUE(probe.process->lines.empty() && !probe.network->accepts);
    if (inTime) probe.encoders->prepared();
    probe.runAt(inTime ? 1000.499 : 1000.5);
    EXPECT_EQ(probe.process->lines.at(0),
              R"({"port":4711,"recording_hd":true,"recording_height":720,"recording_mirror":true,)"
              R"("recording_profiles":true,"recording_timebase":true,"recording_width":1080,)"
              R"("type":"ready"})"
              "\n");
    EXPECT_EQ(Json::parse(probe.process->lines.at(1))["type"], "stats");
    if (!inTime) probe.encoders->prepared();
    // An open encoder or the timeout makes the service ready. The later one starts no second
    // reader.
    probe.runAt(1000.5);
    EXPECT_EQ(probe.dispatch->detached.size(), 1u);
    // A second reader would have run by now, met the end of the input, and ended the service.
    EXPECT_TRUE(probe.process->exitCodes.empty());
  }
}

TEST(Lifecycle, StartsNoReaderIfItIsStoppedBeforeItIsReady) {
  VideoEncoderProbe probe;
  probe.service->start();
  probe.network->changed(ListenerState::ready);
  probe.signal(SIGTERM);
  probe.runAt(1000.5);
  EXPECT_TRUE(probe.dispatch->detached.empty());
}

using ReadyLifecycle = ServiceTest;

TEST_F(ReadyLifecycle, DropsALineIfTheOutputIsFullAndEndsOnlyOnceIfTheOutputIsBroken) {
  const auto client = probe.connectClient();
  probe.feed(1);
  probe.process->takeEvents();
  probe.failures->fail("writeOutput", 1, -EAGAIN);
  (*probe).emitStats(true);
  EXPECT_TRUE(probe.process->lines.empty() && probe.process->exitCodes.empty());
  probe.failures->fail("writeOutput", 1, -EPIPE, /*more=*/9);
  // The watchdog is armed before the service waits for a session, which may hang.
  std::pair<double, int> watchdog;
  probe.lastSession().onFlush = [&] { watchdog = probe.process->watchdog; };
  (*probe).emitStats(true);
  EXPECT_EQ(watchdog, (std::pair{2.2, 0}));
  EXPECT_TRUE(probe.network->cancelled && client->cancelled && probe.lastSession().invalidated);
  probe.signal(SIGTERM);
  EXPECT_EQ(probe.process->exitCodes, std::vector<int>{0});
}

TEST_F(ReadyLifecycle, EndsWithStatusOneAfterAnExceptionOnTheReaderOrTheStateQueue) {
  const Work failing = [] { throw std::bad_alloc(); };
  for (const bool reads : {true, false}) {
    probe.restart();
    if (reads) probe.process->beforeRead = failing;
    if (!reads) probe.queue->async(failing);
    EXPECT_EQ(probe.readAll(), "Cannot allocate memory");
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
  }
}

TEST(Statistics, AreReportedOnceASecondUnlessForced) {
  VideoEncoderProbe probe;
  const auto report = [&probe](double later, bool forced) {
    probe.clock->now += later;
    (*probe).emitStats(forced);
    return probe.process->takeEvent("stats");
  };
  EXPECT_EQ(report(0, true).size(), 25u);  // 8 core keys and 17 diagnostics
  EXPECT_TRUE(report(0.3, false).empty());
  EXPECT_EQ(report(0, true).size(), 8u);    // too soon for diagnostics
  EXPECT_TRUE(report(0.9, false).empty());  // the forced report restarted the interval
  EXPECT_EQ(report(0.2, false).size(), 25u);
}

TEST(WatchdogDeathTest, EndsTheProcessWithTheStatusOfTheShutdown) {
  const auto arm = [] {
    PosixProcess process;
    process.armWatchdog(60, 3);
    process.rearmWatchdog(0.1, 7);
    process.armWatchdog(60, 3);
    for (;;) pause();
  };
  const auto hang = [] {
    const Platform platform = makeSystemPlatform("software");
    const auto service = std::make_shared<VideoEncoder>(Configuration(), platform);
    platform.stateQueue->async([&] {
      service->start();
      raise(SIGTERM);
      std::fputs("SIGTERM was raised", stderr);
      pause();  // the state queue stands still
    });
    for (;;) pause();
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // there may be threads already
  EXPECT_EXIT(arm(), testing::ExitedWithCode(7), "");
  EXPECT_EXIT(hang(), testing::ExitedWithCode(0), "SIGTERM was raised");
}

// Standard input becomes a pipe, and stays one.
TEST(PosixProcess, WaitsForTheBytesOfANonBlockingPipe) {
  int ends[2] = {-1, -1};
  ASSERT_TRUE(pipe(ends) == 0 && dup2(ends[0], STDIN_FILENO) == STDIN_FILENO);
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  PosixProcess process;
  std::jthread parent([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(write(ends[1], "ab", 2), 2);
    close(ends[1]);
  });
  std::uint8_t space[3];
  EXPECT_EQ(process.readInput(space), 2);
  EXPECT_EQ(process.readInput(space), 0);
}

}  // namespace
}  // namespace lumora
