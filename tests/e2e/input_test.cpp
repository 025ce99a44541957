// The process as its parent sees it: launch, input, events, exit status. And how it serves others
// while some misbehave.

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "client/descriptor.h"
#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Input = HelperTest;

TEST_F(Input, EndsWithOneWhereItCannotListenAsTold) {
  const auto expectRefusal = [this](const std::vector<std::string>& arguments, const char* message,
                                    const std::map<std::string, std::string>& environment = {}) {
    launch(arguments, environment);
    EXPECT_EQ(helper->waitForEvent("error").at("message"), message);
    EXPECT_EQ(exitCode(), 1);
  };
  expectRefusal({"--port"}, "invalid helper configuration");
  expectRefusal({}, "invalid helper configuration", {{"TAVO_FRAME_MEMORY", "99"}});
  expectRefusal({"--host", "not a host"}, "video listener initialization failed");
  expectRefusal({"--host", "203.0.113.7"}, "video listener failed");
  start();
  const auto running = std::move(helper);
  expectRefusal({"--port", std::to_string(port)}, "video listener failed");
  start({"--host", "localhost"});
  // Another address of that name would be free.
  const auto named = std::move(helper);
  expectRefusal({"--host", "localhost", "--port", std::to_string(port)}, "video listener failed");
}

TEST_F(Input, AFloodOfFramesIsDroppedAndCountedAndCostsNoMemory) {
  start();
  const FrameSize size{1920, 1080};
  const Pixels pixels = plain(size, {40, 80, 120});
  const Watcher watcher(connectClient());
  // The take encodes a frame for longer than the next one needs to arrive.
  startTake({{"resolution", "1920x1080"}, {"target_fps", 60}});
  for (int i = 0; i < 400; ++i) feed(size, pixels);
  const auto after = helper->waitForEvent("stats", [](const Event& event) {
    return event.at("dropped_raw").get<int>() + event.at("encoded_frames").get<int>() == 400;
  });
  EXPECT_GT(after["dropped_raw"], 0);
  EXPECT_GT(after["encoded_frames"], 10);
  if (!sanitized) {
    EXPECT_LT(tools::peakMegabytes(helper->pid()), 150);
  }
}

TEST_F(Input, AnIgnoredHangUpStaysIgnored) {
  const auto usual = std::signal(SIGHUP, SIG_IGN);  // the helper inherits that
  start();
  std::signal(SIGHUP, usual);
  helper->sendSignal(SIGHUP);
  stream({320, 240}, plain({320, 240}, {1, 2, 3}), 3);
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
    EXPECT_THAT(*first, testing::Not(testing::HasSubstr("error")));
    startTake();
    const Pixels pixels = plain({320, 240}, {9, 9, 9});
    for (std::uint64_t id = 1; id < 4; ++id) helper->writePixels({320, 240}, id, pixels);
    stopTake();
    helper->closeInput();
    while (const auto event = helper->nextEvent(20)) {
      if (event->at("type") != "recording") continue;
      EXPECT_EQ(event->at("state") == "failed", event->at("error") != "");
      refused = refused || event->at("error") == "Too many open files";
      saved = saved || event->at("state") == "saved";
    }
    EXPECT_GE(exitCode(), 0);
  }
  EXPECT_TRUE(refused);
}

TEST_F(Input, EndsWithOneAtTheFirstFrameWithoutTheEncoderThatItNeeds) {
  for (const auto& [choice, words] :
       {std::pair{"no-such-encoder", "hardware encoder creation failed (-"},
        {"software:no-such-preset", "encoder preparation failed (-"}}) {
    start({}, {{"TAVO_H264_ENCODER", choice}});
    const auto viewer = connectClient();
    feedPaced(1);
    EXPECT_THAT(helper->waitForEvent("error").at("message").get<std::string>(),
                testing::StartsWith(words));
    EXPECT_EQ(exitCode(), 1);
  }
}

constexpr auto acknowledgement = "{\"type\":\"ack\",\"frame_id\":18446744073709551615}\n";

// A plain socket to the helper.
struct Stranger {
  explicit Stranger(std::uint16_t port) {
    const sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  }
  bool say(const std::string& text) const {
    return send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL) == std::ssize(text);
  }
  bool sayHello(const std::string& token) const {
    return say(R"({"type":"hello","token":")" + token + "\"}\n");
  }
  void keepSaying(const std::string& text, useconds_t pause = 0) const {
    while (say(text))
      if (pause > 0) usleep(pause);
  }
  // Receives until the helper closes. Returns how many bytes came; `end` is 0 after an orderly end.
  std::size_t listen() {
    std::string heard(1 << 16, ' ');
    std::size_t all = 0;
    ssize_t count = 0;
    while ((count = recv(socket.get(), heard.data(), heard.size(), 0)) > 0)
      all += static_cast<std::size_t>(count);
    end = count < 0 ? errno : 0;
    return all;
  }

  client::Descriptor socket{::socket(AF_INET, SOCK_STREAM, 0)};
  int end = 0;
};

using Abuse = HelperTest;

TEST_F(Abuse, StrangersGetNothingAndDisturbNobody) {
  start();
  Watcher watcher(connectClient());
  startTake();
  // Nobody reads the events meanwhile. The pipe holds about 400, and each stranger causes one.
  std::jthread camera(
      [this](const std::stop_token& stop) { feedUntil([&] { return stop.stop_requested(); }); });
  const std::pair<const char*, std::function<void(Stranger&)>> ways[] = {
      {"nests deeply", [](Stranger& one) { one.say(std::string(4000, '[') + "\n"); }},
      {"half-closes", [](Stranger& one) { shutdown(one.socket.get(), SHUT_WR); }},
      {"trickles", [](Stranger& one) { one.keepSaying("[", 100'000); }},
      {"sends no line feed", [](Stranger& one) { one.keepSaying(std::string(4096, 'x')); }},
      {"floods", [](Stranger& one) { one.keepSaying(acknowledgement); }}};
  for (const auto& [name, behave] : ways) {
    SCOPED_TRACE(name);
    Stranger one(port);
    behave(one);
    EXPECT_EQ(one.listen(), 0u);
  }
  const linger reset{1, 0};
  for (int i = 0; i < 500; ++i)
    setsockopt(Stranger(port).socket.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  std::vector<Stranger> crowd;
  for (int i = 0; i < 500; ++i) crowd.emplace_back(port);
  for (Stranger& one : crowd) EXPECT_EQ(one.listen(), 0u);
  Stranger liar(port);
  liar.sayHello(token);
  liar.keepSaying(acknowledgement);  // acknowledges frames that it never got
  liar.listen();
  camera = {};
  const int before = watcher.frames();
  EXPECT_GT(before, 20);
  feedUntil([&] { return watcher.frames() > before; });
  saveTake();
  helper->waitForEvent("stats", [](const Event& event) {
    return event.at("clients") == 1 && event.at("pending_hello") == 0;
  });
  if (!sanitized) {
    EXPECT_LT(tools::peakMegabytes(helper->pid()), 200);
  }
}

// So nothing of its stream stays in the kernel.
TEST_F(Abuse, AClientThatReadsNothingIsReset) {
  start();
  Stranger one(port);
  one.sayHello(token);
  helper->waitForEvent("stats", [](const Event& event) { return event.at("clients") == 1; });
  feedPaced(60);
  helper->waitForEvent("stats", [](const Event& event) { return event.at("dropped_peers") == 1; });
  one.listen();
  EXPECT_EQ(one.end, ECONNRESET);
}

TEST_F(Abuse, AStoppedProcessGoesOn) {
  start();
  startTake();
  feedPaced(90);
  const int before = waitForTake("recording")["frames"];
  helper->sendSignal(SIGSTOP);
  std::jthread camera([this] { feedPaced(30); });  // waits in the pipe
  std::this_thread::sleep_for(std::chrono::seconds(5));
  helper->sendSignal(SIGCONT);
  camera.join();
  feedPaced(30);
  EXPECT_GT(saveTake()["frames"], before + 2);
}

}  // namespace
}  // namespace lumora::tests
