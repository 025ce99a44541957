// What a take and an honest client go through while others misbehave.

#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>

#include "client/descriptor.h"
#include "tests/e2e/helper_fixture.h"
#include "tools/programs.h"

namespace lumora::tests {
namespace {

// A plain socket to the helper.
struct Stranger {
  explicit Stranger(std::uint16_t port) {
    const sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  }
  bool say(const std::string& text) const {
    return send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL) == std::ssize(text);
  }
  void closeWithReset() {
    const linger at{1, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &at, sizeof at);
    socket.reset();
  }
  // What comes until the helper closes, 64 KiB at a time.
  std::string listen() {
    std::string heard(1 << 16, ' ');
    const ssize_t count = recv(socket.get(), heard.data(), heard.size(), MSG_WAITALL);
    end = count < 0 ? errno : 0;
    return heard.substr(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }

  client::Descriptor socket{::socket(AF_INET, SOCK_STREAM, 0)};
  int end = 0;  // 0: an orderly one
};

using Abuse = HelperTest;

void flood(Stranger& one) {
  while (one.say("{\"type\":\"ack\",\"frame_id\":18446744073709551615}\n")) continue;
}

std::string hello(const std::string& token) {
  return R"({"type":"hello","token":")" + token + "\"}\n";
}

TEST_F(Abuse, StrangersGetNothingAndCostTheOthersNothing) {
  start();
  const Watcher watcher(connectClient());
  startTake();
  std::jthread camera([this] { feedPaced(300, 60); });
  const std::pair<const char*, std::function<void(Stranger&)>> ways[] = {
      {"nests deeply", [](Stranger& one) { one.say(std::string(4000, '[') + "\n"); }},
      {"half-closes", [](Stranger& one) { shutdown(one.socket.get(), SHUT_WR); }},
      {"drips",
       [](Stranger& one) {
         while (one.say("[")) std::this_thread::sleep_for(std::chrono::milliseconds(100));
       }},
      {"sends no line feed",
       [](Stranger& one) {
         for (int i = 0; i < 1024 && one.say(std::string(4096, 'x')); ++i) continue;
       }},
      {"floods", flood}};
  for (const auto& [name, behave] : ways) {
    SCOPED_TRACE(name);
    Stranger one(port);
    behave(one);
    EXPECT_EQ(one.listen(), "");
  }
  for (int i = 0; i < 500; ++i) Stranger(port).closeWithReset();
  std::vector<Stranger> crowd;
  for (int i = 0; i < 500; ++i) crowd.emplace_back(port);
  for (Stranger& one : crowd) EXPECT_EQ(one.listen(), "");
  Stranger admitted(port);
  admitted.say(hello(token));
  flood(admitted);  // what it acknowledges it never got
  while (!admitted.listen().empty()) continue;
  camera.join();
  const int before = watcher.frames();
  feedPaced(10, 60);
  EXPECT_GT(watcher.frames(), before);
  EXPECT_GT(before, 20);
  saveTake();
  if (!sanitized) {
    EXPECT_LT(tools::peakMegabytes(helper->pid()), 200);
  }
}

TEST_F(Abuse, AClientThatReadsNothingIsResetSoThatNothingStaysInTheKernel) {
  start();
  Stranger one(port);
  one.say(hello(token));
  helper->waitForEvent("stats", [](const Event& event) { return event["clients"] == 1; });
  feedPaced(60, 60);
  const Event stats = helper->waitForEvent("stats", [](const Event& event) {
    return event["dropped_peers"] == 1 && event.contains("max_unacked_observed");
  });
  EXPECT_EQ(stats["max_unacked_observed"], 6);
  while (!one.listen().empty()) continue;
  EXPECT_EQ(one.end, ECONNRESET);
}

TEST_F(Abuse, AStoppedProcessGoesOn) {
  start();
  startTake();
  feedPaced(90, 60);
  const int before = waitForTake("recording")["frames"];
  helper->sendSignal(SIGSTOP);
  std::jthread camera([this] { feedPaced(30, 60); });  // waits in the pipe
  std::this_thread::sleep_for(std::chrono::seconds(5));
  helper->sendSignal(SIGCONT);
  camera.join();
  feedPaced(30, 60);
  EXPECT_GT(saveTake()["frames"], before + 2);
}

}  // namespace
}  // namespace lumora::tests
